#include "ZARN_Common/DLL.h"

// The platform-neutral face of the wrapper; each platform's source defines
// DLL::Private::Implement, the constructor and library_path.

namespace ZARN {

void DLL::open(const ORN::String<char> &path) {
    _DYNAMIC_ASSERT_(mThis.exist ());
    mThis->open(path);
}

void DLL::close() {
    _DYNAMIC_ASSERT_(mThis.exist ());
    mThis->close();
}

void *DLL::link(const ORN::String<char> &name) {
    _DYNAMIC_ASSERT_(mThis.exist ());
    return mThis->link(name);
}

} // namespace ZARN
