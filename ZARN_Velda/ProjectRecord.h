#pragma once

// The capture's status record "project.json", kept by the processes that
// finish a capture (the reconstruction and the stereo stitching): its keys
// in their fixed order, read as they were written and written back in the
// same JSON forms, with a new state and progress.

#include "ZARN_Velda/ProcessFrame.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_serialization.h"

#include <array>
#include <string_view>

namespace ZARN::Project {

// Keys of the record in their fixed order; "progress" follows them and is
// written only.
inline constexpr std::array<std::string_view, 12> PROJECT_KEYS = {
    "protocol",   "version",     "description",   "category", "uuid",        "sceneNum",
    "dataSource", "create_time", "create_time_s", "state",    "expect_time", "expect_time_s",
};
inline constexpr std::string_view PROJECT_FILE = "project.json";

// One field of the record: its value text and the JSON form it is written
// back in (a quoted string, a bare number or word, or null).
struct PROJECT_FIELD {
    enum class FORM { STRING, LITERAL, NUL };
    ORN::String<char> mText;
    FORM mForm = FORM::STRING;
};

// The record as read: one field per key of PROJECT_KEYS except "state", and
// the two state flags.
struct PROJECT_RECORD {
    std::array<PROJECT_FIELD, PROJECT_KEYS.size()> mField;
    bool mDone = false;
    bool mCrashed = false;

    // An absent record: empty texts, zero numbers, neither done nor crashed.
    PROJECT_RECORD();
    // The record of a parsed "project.json" object.
    explicit PROJECT_RECORD(const ORN::JsonParser &document);

    // The record with the given state and progress, in the fixed key order.
    ORN::String<char> text(bool done, bool crashed, ORN::int64 progress) const;
};

// The job's record: removes the temporary files an interrupted replacement
// left, then reads "project.json" (a missing one is a fresh capture). A
// record that is no JSON object stops the process ("capture record is not
// a JSON object : <path>") and is left as it is.
PROJECT_RECORD read_project(const ORN::JobDirectory &job);

// Replaces "project.json" with the record's new state, through the durable
// writer (the file's permission bits are kept).
void write_project(const ORN::JobDirectory &job, const PROJECT_RECORD &record, bool done, bool crashed,
                   ORN::int64 progress);

// The record as it was before the run, for the processes that replace it at
// their end.
struct CON_mProject {
    ORN_NODE(CON_mProject);
    PROJECT_RECORD mSelf;
    explicit CON_mProject(ORN::SyntaxTree &tree) {
        const auto &path = tree.stack<Frame::VAR_mWorkingPath>();
        tree.once([this, &path] {
            mSelf = read_project(ORN::JobDirectory(path.mSelf));
            ORN::console().info("project done = ", mSelf.mDone);
        });
    }
};

} // namespace ZARN::Project
