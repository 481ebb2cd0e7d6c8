#include "ZARN_Common/DLL.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <windows.h>

namespace ZARN {

namespace {
// The system's message for an error code, in the form "Error = " code " : " text.
ORN::String<char> system_error(DWORD code) {
    char buffer[8196] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer,
                   sizeof(buffer), nullptr);
    return "Error = " + std::to_string(code) + " : " + buffer;
}
} // namespace

class DLL::Private::Implement : public DLL::Abstract {
public:
    ~Implement() override { mDLLHandle.reset(); }

    void open(const ORN::String<char> &path) override {
        const ORN::String<char> name = ORN::FileSystemProc::file_name(path);
        HINSTANCE handle = nullptr;
        [&](HINSTANCE &result) {
            result = GetModuleHandleA(name.c_str());
            if (result == nullptr)
                result = LoadLibraryA(path.c_str());
            if (result == nullptr) {
                ORN::console().error(system_error(GetLastError()));
                _DYNAMIC_ASSERT_(false);
            }
        }(handle);
        mDLLHandle = ORN::UniqueRef<HINSTANCE>(handle, [](HINSTANCE &) {});
    }

    void close() override { mDLLHandle.reset(); }

    void *link(const ORN::String<char> &name) override {
        _DYNAMIC_ASSERT_(mDLLHandle.exist ());
        FARPROC address = GetProcAddress(mDLLHandle.self(), name.c_str());
        if (address == nullptr) {
            const ORN::String<char> reason = system_error(GetLastError());
            ORN::console().error("function : ", name);
            ORN::console().error(reason);
            _DYNAMIC_ASSERT_(false);
        }
        return reinterpret_cast<void *>(address);
    }

private:
    ORN::UniqueRef<HINSTANCE> mDLLHandle;
};

DLL::DLL() : mThis(ORN::StrongRef<Abstract>(std::make_shared<Private::Implement>())) {}

ORN::String<char> DLL::library_path(const ORN::String<char> &name) {
    return ORN::FileSystemProc::working_path() + name + ".dll";
}

} // namespace ZARN
