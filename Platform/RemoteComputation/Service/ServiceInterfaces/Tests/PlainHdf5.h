#pragma once

// The plain HDF5 C API, reached at run time through the library that the data-file code
// already loaded: the tests see the blocks as any HDF5 program would, without a link
// dependency of their own.

#include <hdf5/serial/hdf5.h>

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace KestraneTest {

class PlainHdf5 {
public:
    static const PlainHdf5& get() {
        static const PlainHdf5 api;
        return api;
    }

    hid_t (*fopen)(const char*, unsigned, hid_t);
    herr_t (*fclose)(hid_t);
    hid_t (*dopen)(hid_t, const char*, hid_t);
    herr_t (*dclose)(hid_t);
    herr_t (*dread)(hid_t, hid_t, hid_t, hid_t, hid_t, void*);
    hid_t (*dgetSpace)(hid_t);
    hssize_t (*npoints)(hid_t);
    herr_t (*sclose)(hid_t);
    hid_t (*dgetCreatePlist)(hid_t);
    int (*nfilters)(hid_t);
    herr_t (*pclose)(hid_t);
    hid_t nativeDouble;

    static constexpr unsigned c_readOnly = 0u; // H5F_ACC_RDONLY
    static constexpr hid_t c_default = 0;      // H5P_DEFAULT
    static constexpr hid_t c_all = 0;          // H5S_ALL

private:
    template <typename F> static void bind(F& target, const char* name) {
        target = reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
        if (!target)
            throw std::runtime_error(std::string("HDF5 symbol not loaded: ") + name);
    }

    PlainHdf5() {
        herr_t (*open)(void) = nullptr;
        bind(open, "H5open");
        open();
        bind(fopen, "H5Fopen");
        bind(fclose, "H5Fclose");
        bind(dopen, "H5Dopen2");
        bind(dclose, "H5Dclose");
        bind(dread, "H5Dread");
        bind(dgetSpace, "H5Dget_space");
        bind(npoints, "H5Sget_simple_extent_npoints");
        bind(sclose, "H5Sclose");
        bind(dgetCreatePlist, "H5Dget_create_plist");
        bind(nfilters, "H5Pget_nfilters");
        bind(pclose, "H5Pclose");
        auto* type = static_cast<hid_t*>(dlsym(RTLD_DEFAULT, "H5T_NATIVE_DOUBLE_g"));
        if (!type)
            throw std::runtime_error("HDF5 symbol not loaded: H5T_NATIVE_DOUBLE_g");
        nativeDouble = *type;
    }
};

} // namespace KestraneTest
