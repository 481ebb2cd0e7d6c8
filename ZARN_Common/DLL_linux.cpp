#include "ZARN_Common/DLL.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <dlfcn.h>

#include <cerrno>

namespace ZARN {

namespace {
// The loader's reason for the last failure, in the form "Error = " code " : " text.
ORN::String<char> loader_error(int code) {
    const char *text = dlerror();
    return "Error = " + std::to_string(code) + " : " + (text ? text : "unknown error");
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
            result = dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD);
            if (result == nullptr)
                result = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (result == nullptr) {
                const int code = errno;
                ORN::console().error(loader_error(code));
                _DYNAMIC_ASSERT_(false);
            }
        }(handle);
        // The release does nothing: a loaded library stays loaded.
        mDLLHandle = ORN::UniqueRef<void *>(handle, [](void *&) {});
    }

    void close() override { mDLLHandle.reset(); }

    void *link(const ORN::String<char> &name) override {
        _DYNAMIC_ASSERT_(mDLLHandle.exist ());
        dlerror();
        void *address = dlsym(mDLLHandle.self(), name.c_str());
        if (address == nullptr) {
            const int code = errno;
            const ORN::String<char> reason = loader_error(code);
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
