#include "daemon/startup.h"

int main(int argc, char **argv) {
    return vornd_main(argc, argv);
}
