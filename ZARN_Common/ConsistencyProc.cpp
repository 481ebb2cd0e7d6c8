#include "ZARN_Common/ConsistencyProc.h"

#include "__ORN__/orn_debugger.h"
#include "__ORN__/orn_filesystem.h"

#include <charconv>

namespace ZARN {

using ORN::FileSystemProc;

ORN::XmlParser ConsistencyProc::load_Lumora_setting_xml(const ORN::String<char> &working_path) {
    // The module's directory is that of the file holding this function.
    const auto self = &ConsistencyProc::load_Lumora_setting_xml;
    const ORN::Array<ORN::String<char>> candidates{
        FileSystemProc::join_path(working_path, "setting.xml"),
        FileSystemProc::join_path(FileSystemProc::working_path(), "setting.xml"),
        FileSystemProc::join_path(FileSystemProc::module_path(reinterpret_cast<const void *>(self)), "setting.xml"),
    };
    ORN::Array<ORN::XmlParser> slots(candidates.size());
    for (ORN::INDEX ix = 0; ix < candidates.size(); ++ix) {
        bool seen = false;
        for (ORN::INDEX iy = 0; iy < ix && !seen; ++iy)
            seen = FileSystemProc::identical_file(candidates[ix], candidates[iy]);
        if (seen)
            continue;
        slots[ix] = ORN::try_invoke(
            [&] {
                const auto data = FileSystemProc::load_file(candidates[ix]);
                ORN::XmlParser document(data.text());
                ORN::console().debug("setting file : ", candidates[ix]);
                return document;
            },
            ORN::XmlParser());
    }
    return ORN::XmlParser(slots);
}

void ConsistencyProc::check_file_existance(const ORN::String<char> &path) {
    if (FileSystemProc::find_file(path))
        return;
    ORN::console().error("missing file : ", path);
    _DYNAMIC_ASSERT_(false);
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
        const ORN::String<char> text = group[ix].value(ORN::String<char>());
        ORN::int64 id = 0;
        const auto r = std::from_chars(text.data(), text.data() + text.size(), id);
        if (r.ec != std::errc() || r.ptr != text.data() + text.size())
            continue;
        const ORN::INDEX r1x = ids.find(id);
        if (r1x == ORN::VAR_NONE)
            continue;
        _DYNAMIC_ASSERT_(r1x >= 0 && r1x < flags.size ());
        flags.set(r1x);
    }
}

} // namespace ZARN
