// Helpers shared by the fuzz targets.
#pragma once

#include <android/log.h>

#include <cstdlib>
#include <string>

// The daemon's log goes nowhere: fuzzing prints only its own findings.
inline void fuzz_quiet() {
    __android_log_set_logger([](const struct __android_logger_data *, const char *) {});
}

// A new directory <base>/vorn-fuzz-<name>-XXXXXX.
inline std::string fuzz_temp_dir(const char *name, const char *base = "/tmp") {
    std::string tmpl = std::string(base) + "/vorn-fuzz-" + name + "-XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr)
        abort();
    return tmpl;
}
