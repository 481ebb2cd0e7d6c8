#include "ZARN_Common/DLL.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <windows.h>

namespace ZARN {

namespace {
// The system's message for an error code, in the form "Error = " code " : "
// [what " : "] text. Inserts ("%1") are left as they are, never read from
// arguments that are not there, and the message's closing line break is
// dropped: the console ends the line itself.
ORN::String<char> system_error(DWORD code, const ORN::String<char> &what = {}) {
    char buffer[8196] = {};
    const DWORD size = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                                      MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, sizeof(buffer), nullptr);
    ORN::String<char> text(buffer, size < sizeof(buffer) ? size : 0);
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return "Error = " + std::to_string(code) + " : " + (what.empty() ? text : what + " : " + text);
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
                // Named as the loader of the Linux form names it: the path asked for.
                ORN::console().error(system_error(GetLastError(), path));
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
