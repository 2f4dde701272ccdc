# Libraries from Debian's archive (scripts/setup.sh installs them).

find_package(PkgConfig REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(MINIZIP REQUIRED IMPORTED_TARGET minizip)

# Android's liblog and libcutils as Debian ships them for the host.
set(VORN_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_path(ANDROID_INCLUDE_DIR android/log.h PATHS /usr/include/android REQUIRED NO_DEFAULT_PATH)
find_library(ANDROID_LIBLOG log PATHS ${VORN_ANDROID_LIBDIR} REQUIRED NO_DEFAULT_PATH)
find_library(ANDROID_LIBCUTILS cutils PATHS ${VORN_ANDROID_LIBDIR} REQUIRED NO_DEFAULT_PATH)
add_library(android::log SHARED IMPORTED)
set_target_properties(android::log PROPERTIES IMPORTED_LOCATION ${ANDROID_LIBLOG}
  INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
add_library(android::cutils SHARED IMPORTED)
set_target_properties(android::cutils PROPERTIES IMPORTED_LOCATION ${ANDROID_LIBCUTILS}
  INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_INCLUDE_DIR})
# The libraries live outside the loader's default path.
set(CMAKE_BUILD_RPATH ${VORN_ANDROID_LIBDIR})
set(CMAKE_INSTALL_RPATH ${VORN_ANDROID_LIBDIR})

# libqrtr-dev cannot be installed for two architectures at once; a cross build
# links the runtime library of the other architecture by its file name.
find_library(QRTR_LIBRARY NAMES qrtr libqrtr.so.1 REQUIRED)
find_path(QRTR_INCLUDE_DIR libqrtr.h REQUIRED)
add_library(qrtr::qrtr UNKNOWN IMPORTED)
set_target_properties(qrtr::qrtr PROPERTIES IMPORTED_LOCATION ${QRTR_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${QRTR_INCLUDE_DIR})

if(VORN_TESTS)
  find_package(GTest REQUIRED)
endif()
if(VORN_BENCH)
  find_package(benchmark QUIET)
endif()
