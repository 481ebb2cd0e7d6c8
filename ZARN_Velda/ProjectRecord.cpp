#include "ZARN_Velda/ProjectRecord.h"

#include "__ORN__/orn_debugger.h"

#include <charconv>
#include <system_error>

namespace ZARN::Project {

namespace {

constexpr std::string_view PROJECT_STATE = "state";

// Keys whose value is a number when the record does not have them.
constexpr bool numeric_key(std::string_view key) {
    return key == "sceneNum" || key == "create_time_s" || key == "expect_time_s";
}

// -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
bool json_number_text(std::string_view t) {
    std::size_t i = 0;
    auto digits = [&] {
        const std::size_t b = i;
        while (i < t.size() && t[i] >= '0' && t[i] <= '9')
            ++i;
        return i > b;
    };
    if (i < t.size() && t[i] == '-')
        ++i;
    if (i < t.size() && t[i] == '0')
        ++i;
    else if (!digits())
        return false;
    if (i < t.size() && t[i] == '.' && (++i, !digits()))
        return false;
    if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
        ++i;
        if (i < t.size() && (t[i] == '+' || t[i] == '-'))
            ++i;
        if (!digits())
            return false;
    }
    return i == t.size();
}

// The bare scalar text as standard JSON: numbers and the words true and
// false as they are; the forms the reader also accepts ("+5", "5.", "TRUE")
// rewritten; empty when the text is no bare scalar at all.
ORN::String<char> json_literal(std::string_view text) {
    if (json_number_text(text) || text == "true" || text == "false")
        return ORN::String<char>(text);
    if (text == "TRUE" || text == "FALSE")
        return text == "TRUE" ? "true" : "false";
    std::string_view digits = text;
    if (!digits.empty() && digits.front() == '+')
        digits.remove_prefix(1);
    ORN::int64 integer = 0;
    auto r = std::from_chars(digits.data(), digits.data() + digits.size(), integer);
    if (r.ec == std::errc() && r.ptr == digits.data() + digits.size())
        return ORN::TextWriter::number(integer);
    double real = 0;
    const auto q = std::from_chars(digits.data(), digits.data() + digits.size(), real);
    if (q.ec == std::errc() && q.ptr == digits.data() + digits.size() && real - real == real - real)
        return ORN::TextWriter::number(real);
    return {};
}

} // namespace

PROJECT_RECORD::PROJECT_RECORD() {
    for (std::size_t i = 0; i < PROJECT_KEYS.size(); ++i)
        if (numeric_key(PROJECT_KEYS[i]))
            mField[i] = PROJECT_FIELD{"0", PROJECT_FIELD::FORM::LITERAL};
}

PROJECT_RECORD::PROJECT_RECORD(const ORN::JsonParser &document) : PROJECT_RECORD() {
    for (std::size_t i = 0; i < PROJECT_KEYS.size(); ++i) {
        const ORN::JsonParser member = document.child(PROJECT_KEYS[i]);
        if (PROJECT_KEYS[i] == PROJECT_STATE) {
            mDone = member.child("done").value(false);
            mCrashed = member.child("crashed").value(false);
        } else if (member.null_type()) {
            mField[i] = PROJECT_FIELD{"null", PROJECT_FIELD::FORM::NUL};
        } else if (member.string_type()) {
            ORN::String<char> literal;
            if (!member.quoted())
                literal = json_literal(member.view());
            mField[i] = literal.empty() ? PROJECT_FIELD{member.value(), PROJECT_FIELD::FORM::STRING}
                                        : PROJECT_FIELD{std::move(literal), PROJECT_FIELD::FORM::LITERAL};
        }
        // Arrays and objects are no values of the record: the default stays.
    }
}

ORN::String<char> PROJECT_RECORD::text(bool done, bool crashed, ORN::int64 progress) const {
    ORN::JsonWriter writer(512);
    writer.raw("{");
    for (std::size_t i = 0; i < PROJECT_KEYS.size(); ++i) {
        writer.key(PROJECT_KEYS[i]);
        if (PROJECT_KEYS[i] == PROJECT_STATE) {
            writer.raw("{").key("done").boolean(done).comma().key("crashed").boolean(crashed).raw("}");
        } else if (mField[i].mForm == PROJECT_FIELD::FORM::STRING) {
            writer.string(mField[i].mText);
        } else {
            writer.raw(mField[i].mText);
        }
        writer.comma();
    }
    writer.key("progress").number(progress).raw("}");
    return std::move(writer).text();
}

PROJECT_RECORD read_project(const ORN::JobDirectory &job) {
    job.erase_leftovers(PROJECT_FILE);
    if (!job.exist(PROJECT_FILE))
        return PROJECT_RECORD();
    const auto text = job.load_file(PROJECT_FILE);
    const ORN::JsonParser document(text.text(), job.path(PROJECT_FILE));
    if (!document.object_type())
        ORN::console().error("capture record is not a JSON object : ", job.path(PROJECT_FILE));
    _DYNAMIC_ASSERT_(document.object_type ());
    return PROJECT_RECORD(document);
}

void write_project(const ORN::JobDirectory &job, const PROJECT_RECORD &record, bool done, bool crashed,
                   ORN::int64 progress) {
    job.save_file(PROJECT_FILE, record.text(done, crashed, progress));
}

} // namespace ZARN::Project
