#include "ZARN_Common/ConsistencyProc.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"


namespace ZARN {

using ORN::FileSystemProc;

ORN::XmlParser ConsistencyProc::load_Lumora_setting_xml(const ORN::String<char> &working_path) {
    ORN::Array<ORN::String<char>> files_read;
    return load_Lumora_setting_xml(working_path, files_read);
}

ORN::XmlParser ConsistencyProc::load_Lumora_setting_xml(const ORN::String<char> &working_path,
                                                        ORN::Array<ORN::String<char>> &files_read) {
    // The module's directory is that of the file holding this function.
    const auto self = static_cast<ORN::XmlParser (*)(const ORN::String<char> &)>(&load_Lumora_setting_xml);
    const ORN::JobDirectory job(working_path);
    constexpr std::string_view SETTING = "setting.xml";
    const ORN::Array<ORN::String<char>> candidates{
        job.path(SETTING),
        FileSystemProc::join_path(FileSystemProc::working_path(), SETTING),
        FileSystemProc::join_path(FileSystemProc::module_path(reinterpret_cast<const void *>(self)), SETTING),
    };
    constexpr ORN::INDEX limit = ORN::JobDirectory::config_file_size();
    ORN::Array<ORN::XmlParser> slots(candidates.size());
    for (ORN::INDEX ix = 0; ix < candidates.size(); ++ix) {
        bool seen = false;
        for (ORN::INDEX iy = 0; iy < ix && !seen; ++iy)
            seen = FileSystemProc::identical_file(candidates[ix], candidates[iy]);
        // A missing file is the usual case and says nothing.
        const bool present = ix == 0 ? job.exist(SETTING) : FileSystemProc::find_file(candidates[ix]);
        if (seen || !present)
            continue;
        const bool loaded = ORN::try_run([&] {
            const auto data = ix == 0 ? job.load_file(SETTING, limit) : FileSystemProc::load_file(candidates[ix], limit);
            slots[ix] = ORN::XmlParser(data.text());
        });
        if (loaded)
            files_read.append(candidates[ix]);
        else
            ORN::console().warn("setting file ignored : ", candidates[ix]);
    }
    return ORN::XmlParser(slots);
}

void ConsistencyProc::check_file_existance(const ORN::String<char> &path) {
    if (FileSystemProc::find_file(path))
        return;
    ORN::console().error("missing file : ", path);
    _DYNAMIC_ASSERT_(false);
}

void ConsistencyProc::check_file_existance(const ORN::JobDirectory &job, std::string_view relative) {
    ORN::String<char> where;
    const ORN::String<char> why = job.why_refused(relative, &where);
    if (why.empty())
        return;
    if (why == "missing")
        ORN::console().error("missing file : ", job.path(relative));
    else
        ORN::console().error("refused file : ", where, " : ", why);
    _DYNAMIC_ASSERT_(false);
}

void ConsistencyProc::report_result(std::string_view entry, ORN::int64 code, const char *meaning) {
    if (code != 0)
        ORN::console().error(entry, " failed : ", meaning);
}

ORN::String<char> ConsistencyProc::asset_file_distort_table_txt() {
    const ORN::String<char> ret = FileSystemProc::join_path(FileSystemProc::working_path(), "asset/distortion.txt");
    _DYNAMIC_ASSERT_(!ret.empty ());
    return ret;
}

void ConsistencyProc::compute_read_array_from_json(const ORN::Array<ORN::JsonParser> &group,
                                                   const ORN::Set<ORN::int64> &ids, ORN::BitSet &flags) {
    for (ORN::INDEX ix = 0; ix < group.size(); ++ix) {
        _DYNAMIC_ASSERT_(ix >= 0 && ix < group.size ());
        // Two different fallbacks tell an element that is no integer from one
        // that happens to equal a fallback.
        const ORN::int64 id = group[ix].value(ORN::int64(0));
        if (id == 0 && group[ix].value(ORN::int64(1)) != 0)
            continue;
        const ORN::INDEX r1x = ids.find(id);
        if (r1x == ORN::VAR_NONE)
            continue;
        _DYNAMIC_ASSERT_(r1x >= 0 && r1x < flags.size ());
        flags.set(r1x);
    }
}

} // namespace ZARN
