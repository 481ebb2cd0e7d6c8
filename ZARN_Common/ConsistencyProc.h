#pragma once

// Helpers every process uses to find its settings and check its inputs.

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_filesystem.h"
#include "__ORN__/orn_serialization.h"

namespace ZARN {

class ConsistencyProc {
public:
    // The "setting.xml" files of the working directory, the current directory
    // and the module's directory, joined in that order into one document. The
    // same file reached twice is read once; a missing, unreadable or malformed
    // file leaves its slot empty.
    static ORN::XmlParser load_Lumora_setting_xml(const ORN::String<char> &working_path);
    // The same, also telling which files were read, in slot order. The
    // working directory's file is read as a file of the job (no link is
    // followed); each file must be a regular file below the size limit of
    // configuration files, otherwise it is reported and left out.
    static ORN::XmlParser load_Lumora_setting_xml(const ORN::String<char> &working_path,
                                                  ORN::Array<ORN::String<char>> &files_read);

    // Returns when the file exists; otherwise logs "missing file : " and the
    // path and fails.
    static void check_file_existance(const ORN::String<char> &path);
    // The same for a name of the job: it must be a regular file reached
    // inside the job without links; a refused one is logged as
    // "refused file : <path> : <reason>" and fails the same way.
    static void check_file_existance(const ORN::JobDirectory &job, std::string_view relative);

    // The line for a person that comes before the "return value = " line of
    // a failed library call: "<entry> failed : <meaning of the code>".
    static void report_result(std::string_view entry, ORN::int64 code, const char *meaning);

    // Full path of "asset/distortion.txt" under the current directory.
    static ORN::String<char> asset_file_distort_table_txt();

    // For every identifier in `group` that `ids` knows, sets the bit at its
    // position in `flags`. Identifiers are read as integers with the JSON
    // parser's typed read ("+5" and +5 are 5); unknown identifiers, and
    // elements that are no integer, are ignored; bits are only ever set.
    static void compute_read_array_from_json(const ORN::Array<ORN::JsonParser> &group, const ORN::Set<ORN::int64> &ids,
                                             ORN::BitSet &flags);
};

} // namespace ZARN
