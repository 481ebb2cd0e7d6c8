#pragma once

// A library loaded at run time by path and looked up by symbol name. A loaded
// library is never unloaded: closing or destroying the wrapper only forgets
// the handle, so function addresses taken from it stay valid for the life of
// the host process.

#include "__ORN__/orn_basic.h"

namespace ZARN {

class DLL {
public:
    class Abstract : public ORN::Interface {
    public:
        virtual void open(const ORN::String<char> &path) = 0;
        virtual void close() = 0;
        virtual void *link(const ORN::String<char> &name) = 0;
    };
    struct Private {
        class Implement;
    };

    // A wrapper ready to open a library.
    DLL();
    // A wrapper that was never set up: every call fails on "mThis.exist ()".
    explicit DLL(std::nullptr_t) noexcept {}

    // Uses the already loaded library of the same file name when there is
    // one, otherwise loads `path`.
    void open(const ORN::String<char> &path);
    void close();
    void *link(const ORN::String<char> &name);

    // `link` cast to the entry's exact function type.
    template <class F>
    F *link_as(const ORN::String<char> &name) {
        return reinterpret_cast<F *>(link(name));
    }

    // Where a closed library of the given base name is looked up: the current
    // directory, "lib" + name + ".so" (name + ".dll" on Windows).
    static ORN::String<char> library_path(const ORN::String<char> &name);

private:
    ORN::StrongRef<Abstract> mThis;
};

} // namespace ZARN
