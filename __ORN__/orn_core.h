#pragma once

// Process-wide objects.
//
// `GlobalStatic<Singleton<T>>::instance()` is the one object of T for the
// whole program, made on first use and never destroyed, so that it is still
// there while other statics are torn down (a destructor may still log).
//
// The core library is a shared library used at once by the launcher, the
// module and the tests. A template static would give each of those binaries
// its own copy, so a type whose object must be truly unique (the console
// service) specialises `instance()` out of line inside the core library; the
// inline form below serves everything else.

#include "orn_basic.h"

// Symbols of the core library that other binaries reach, kept visible even
// when a client is compiled with hidden visibility.
#if defined(_WIN32)
#define ORN_API
#else
#define ORN_API __attribute__((visibility("default")))
#endif

namespace ORN {

// Tag for "the one object of T".
template <class T>
class Singleton {
public:
    using Type = T;
    Singleton() = delete;
};

template <class T>
class GlobalStatic {
public:
    // A static T, made on first use and destroyed at exit.
    static T &instance() {
        static T object;
        return object;
    }
};

template <class T>
class GlobalStatic<Singleton<T>> {
public:
    static T &instance() {
        static T *const object = new T();
        return *object;
    }
};

class ConsoleService;

// The console service lives in the core library itself (orn_debugger.cpp).
template <>
ORN_API ConsoleService &GlobalStatic<Singleton<ConsoleService>>::instance();

// Short form of GlobalStatic<Singleton<ConsoleService>>::instance(); include
// "orn_debugger.h" to use the service.
ORN_API ConsoleService &console();

} // namespace ORN
