// Settings lookup, file checks and identifier lists shared by the processes.
#include "support.h"

#include "ZARN_Common/ConsistencyProc.h"

namespace {

using namespace zarn_test;
using ZARN::ConsistencyProc;

TEST(ConsistencyProc, CheckFileExistanceLogsAndFailsOnlyForMissingFiles) {
    TempDir dir;
    write_file(dir / "present.txt", "x");
    EXPECT_EQ(capture_stdout([&] { ConsistencyProc::check_file_existance(dir / "present.txt"); }), "");
    std::string text;
    const std::string out =
        capture_stdout([&] { text = failure_of([&] { ConsistencyProc::check_file_existance(dir / "absent.txt"); }); });
    EXPECT_EQ(out, "missing file : " + (dir / "absent.txt") + "\n");
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : false : at ")) << text;
    EXPECT_TRUE(contains(text, "check_file_existance")) << text;
    // A directory is not a file.
    EXPECT_NE(failure_of([&] { capture_stdout([&] { ConsistencyProc::check_file_existance(dir.str()); }); }), "");
}

TEST(ConsistencyProc, DistortionTableLivesUnderTheCurrentDirectory) {
    EXPECT_EQ(ConsistencyProc::asset_file_distort_table_txt(), (fs::current_path() / "asset/distortion.txt").make_preferred().string());
}

TEST(ConsistencyProc, IdentifierListsSetOnlyKnownIdentifiers) {
    const ORN::JsonParser json(R"([20, "30", 99, "x", 1.5, null, 20])");
    const ORN::Set<ORN::int64> ids{10, 20, 30};
    ORN::BitSet flags(3);
    flags.set(0); // bits are only ever set, never cleared
    ConsistencyProc::compute_read_array_from_json(json.children(), ids, flags);
    EXPECT_TRUE(flags.get(0));
    EXPECT_TRUE(flags.get(1));
    EXPECT_TRUE(flags.get(2));
    EXPECT_EQ(flags.count(), 3);

    ORN::BitSet fresh(3);
    ConsistencyProc::compute_read_array_from_json(ORN::JsonParser(R"([99, -1, "10x", [10], {"a":10}])").children(), ids, fresh);
    EXPECT_EQ(fresh.count(), 0);

    // The JSON parser's typed read: a leading plus, quoted or not, is a
    // number like anywhere else; 0 is an identifier like any other.
    const ORN::Set<ORN::int64> with_zero{0, 5, 7};
    ORN::BitSet signs(3);
    ConsistencyProc::compute_read_array_from_json(ORN::JsonParser(R"([+5, "+7", "0"])").children(), with_zero, signs);
    EXPECT_EQ(signs.count(), 3);
}

TEST(ConsistencyProc, IdentifierPositionOutsideTheFlagsFails) {
    const ORN::Set<ORN::int64> ids{10, 20, 30};
    ORN::BitSet flags(2);
    const std::string text = failure_of(
        [&] { ConsistencyProc::compute_read_array_from_json(ORN::JsonParser("[30]").children(), ids, flags); });
    EXPECT_TRUE(starts_with(text, "dynamic_assert failed : r1x >= 0 && r1x < flags.size () : at ")) << text;
}

TEST(ConsistencyProc, SettingsFromTheWorkingDirectory) {
    TempDir job;
    write_file(job / "setting.xml",
               R"(<_Lumora><VideoTransferProcess><mThreadConcurrency value="4"/></VideoTransferProcess></_Lumora>)");
    const auto xml = ConsistencyProc::load_Lumora_setting_xml(job.str());
    EXPECT_EQ(xml.child("_Lumora").child("VideoTransferProcess").child("mThreadConcurrency").value(ORN::int64(1)), 4);
    EXPECT_EQ(xml.child("_Lumora").child("VeldaMeshProcess").child("mThreadConcurrency").value(ORN::int64(64)), 64);
}

} // namespace
