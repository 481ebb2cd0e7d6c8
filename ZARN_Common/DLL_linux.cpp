#include "ZARN_Common/DLL.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ZARN {

namespace {

// "Error = " code " : " text. The loader gives its reason as text only, so
// the code is the system error that best names the failure: the one met
// when the file itself is opened (2 for a missing file, 13 for a file that
// may not be read), or ENOEXEC (8) for a file that is there but cannot be
// loaded (not a library, a missing dependency, an unresolved symbol).
ORN::String<char> loader_error(int code, const char *reason) {
    return "Error = " + std::to_string(code) + " : " + (reason != nullptr ? reason : std::strerror(code));
}

int open_error(const ORN::String<char> &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    ::close(fd);
    return ENOEXEC;
}

// The full path of an object of the process whose file name is `name`, so
// that a library the host already loaded is found by its file name
// whatever its SONAME, and wherever it was loaded from.
ORN::String<char> loaded_path(const ORN::String<char> &name) {
    struct SEARCH {
        const ORN::String<char> *mName;
        ORN::String<char> mPath;
    } search{&name, {}};
    dl_iterate_phdr(
        [](dl_phdr_info *info, std::size_t, void *data) {
            auto &s = *static_cast<SEARCH *>(data);
            if (info->dlpi_name == nullptr || info->dlpi_name[0] == '\0')
                return 0;
            const ORN::String<char> path(info->dlpi_name);
            if (ORN::FileSystemProc::file_name(path) != *s.mName)
                return 0;
            s.mPath = path;
            return 1;
        },
        &search);
    return search.mPath;
}

} // namespace

class DLL::Private::Implement : public DLL::Abstract {
public:
    ~Implement() override { mDLLHandle.reset(); }

    void open(const ORN::String<char> &path) override {
        const ORN::String<char> name = ORN::FileSystemProc::file_name(path);
        void *handle = nullptr;
        [&](void *&result) {
            // A library already in the process (loaded by this module or by the
            // host) is shared rather than loaded again.
            const ORN::String<char> loaded = loaded_path(name);
            if (!loaded.empty())
                result = dlopen(loaded.c_str(), RTLD_NOW | RTLD_NOLOAD);
            if (result == nullptr)
                result = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (result == nullptr) {
                const char *reason = dlerror();
                ORN::console().error(loader_error(open_error(path), reason));
                _DYNAMIC_ASSERT_(false);
            }
        }(handle);
        // The release does nothing: a loaded library stays loaded.
        mDLLHandle = ORN::UniqueRef<void *>(handle, [](void *&) {});
    }

    void close() override { mDLLHandle.reset(); }

    // A name the library does not export is ENOENT (2), the loader's text
    // following it.
    void *link(const ORN::String<char> &name) override {
        _DYNAMIC_ASSERT_(mDLLHandle.exist ());
        dlerror();
        void *address = dlsym(mDLLHandle.self(), name.c_str());
        if (address == nullptr) {
            const ORN::String<char> reason = loader_error(ENOENT, dlerror());
            ORN::console().error("function : ", name);
            ORN::console().error(reason);
            _DYNAMIC_ASSERT_(false);
        }
        return address;
    }

private:
    ORN::UniqueRef<void *> mDLLHandle;
};

DLL::DLL() : mThis(ORN::StrongRef<Abstract>(std::make_shared<Private::Implement>())) {}

ORN::String<char> DLL::library_path(const ORN::String<char> &name) {
    return ORN::FileSystemProc::working_path() + "lib" + name + ".so";
}

} // namespace ZARN
