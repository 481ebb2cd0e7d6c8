#include "orn_basic.h"

namespace ORN {

Exception::~Exception() = default;

const char *Exception::what() const noexcept { return mText.c_str(); }

} // namespace ORN

namespace ORN::Private {

void raise_assertion(const char *condition, const char *function, const char *file, long line) {
    std::string text;
    text.reserve(96 + std::char_traits<char>::length(condition) + std::char_traits<char>::length(function));
    text.append("dynamic_assert failed : ").append(condition);
    text.append(" : at ").append(function);
    text.append(" in ").append(file);
    text.append(" ,").append(std::to_string(line));
    throw Exception(std::move(text));
}

} // namespace ORN::Private
