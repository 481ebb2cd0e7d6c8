// Settings documents read through ORN::XmlParser.
#include "__ORN__/orn_serialization.h"

#include "support.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

using zarn_test::failure_of;

using ORN::XmlParser;

void expect_assertion(const std::string &what, const std::string &condition) {
    EXPECT_EQ(what.rfind("dynamic_assert failed : " + condition + " : at ", 0), 0u) << what;
    EXPECT_NE(what.find(" in __ORN__/orn_serialization.cpp ,"), std::string::npos) << what;
}

XmlParser section(const XmlParser &doc, const char *process) { return doc.child("_Lumora").child(process); }

TEST(XmlSettings, SingleAttributeRule) {
    const XmlParser doc(R"(<?xml version="1.0"?>
<_Lumora>
  <!-- per process -->
  <VideoTransferProcess>
    <mThreadConcurrency value="4"/>
    <mFileWriterBufferSize size=" 1024 "></mFileWriterBufferSize>
    <mTwo value="5" other="6"/>
    <mNested value="7"><inner value="8"/></mNested>
    <mNone/>
    <mText value="many"/>
    <mFlag value="TRUE"/>
    <mRatio value="0.5"/>
  </VideoTransferProcess>
</_Lumora>)");
    const XmlParser s = section(doc, "VideoTransferProcess");
    ASSERT_TRUE(s.exist());
    EXPECT_EQ(s.name(), "VideoTransferProcess");
    EXPECT_EQ(s.child("mThreadConcurrency").value(int64_t(1)), 4);
    EXPECT_EQ(s.child("mThreadConcurrency").value(), "4");
    EXPECT_EQ(s.child("mFileWriterBufferSize").value(int64_t(268435456)), 1024);
    EXPECT_EQ(s.child("mFileWriterBufferSize").value(), " 1024 ");
    EXPECT_EQ(s.child("mTwo").value(int64_t(1)), 1);
    EXPECT_EQ(s.child("mNested").value(int64_t(1)), 1);
    EXPECT_EQ(s.child("mNested").child("inner").value(0), 8);
    EXPECT_EQ(s.child("mNone").value("d"), "d");
    EXPECT_EQ(s.child("mText").value(int64_t(1)), 1);
    EXPECT_EQ(s.child("mText").value(std::string("d")), "many");
    EXPECT_TRUE(s.child("mFlag").value(false));
    EXPECT_DOUBLE_EQ(s.child("mRatio").value(1.0), 0.5);
    EXPECT_EQ(s.child("mRatio").value(3), 3);
    EXPECT_EQ(s.child("mAbsent").value(int64_t(64)), 64);
    EXPECT_EQ(section(doc, "VeldaMeshProcess").child("mThreadConcurrency").value(int64_t(64)), 64);

    expect_assertion(failure_of([&] { s.child("mTwo").value(); }), "mAttributeMappingSet.length () == 1");
    expect_assertion(failure_of([&] { s.child("mNone").value(); }), "mAttributeMappingSet.length () == 1");
    expect_assertion(failure_of([&] { s.child("mNested").value(); }), "mMemberSet.size () == 0");
    expect_assertion(failure_of([&] { s.child("mAbsent").value(); }), "exist ()");
}

TEST(XmlSettings, MalformedAndBlankTexts) {
    for (const char *bad : {"<a><b></a>", "<a", "text only", "<?xml version=\"1.0\"?>"})
        expect_assertion(failure_of([&] { XmlParser p(bad); }), "result.status == pugi::status_ok");
    for (const char *blank : {"", "  \n\t"}) {
        const XmlParser p(blank);
        EXPECT_FALSE(p.exist());
        EXPECT_FALSE(p.child("_Lumora").exist());
    }
    EXPECT_FALSE(XmlParser().exist());
    EXPECT_EQ(XmlParser(ORN::Buffer<unsigned char>::from_text("<a><b v='1'/></a>")).child("a").child("b").value(0), 1);
}

TEST(XmlSettings, SameNameSiblingsAreOneElement) {
    const XmlParser doc(R"(<r><k value="1"/><x/><k value="2" more="3"/><k><c value="4"/></k></r>)");
    const XmlParser k = doc.child("r").child("k");
    EXPECT_EQ(k.child("c").value(0), 4);
    expect_assertion(failure_of([&] { k.value(); }), "mMemberSet.size () == 0");
    const auto members = doc.child("r").children();
    ASSERT_EQ(members.size(), 2);
    EXPECT_EQ(members[0].name(), "k");
    EXPECT_EQ(members[1].name(), "x");
}

TEST(XmlSettings, JoinTakesTheEarliestSlotAndSkipsEmptyOnes) {
    ORN::Array<XmlParser> slots(3);
    slots[0] = XmlParser(R"(<_Lumora><VideoTransferProcess><mThreadConcurrency value="4"/><mOwn v="x"/></VideoTransferProcess></_Lumora>)");
    // slot 1 stays empty (no file in the current directory)
    slots[2] = XmlParser(R"(<_Lumora>
        <VideoTransferProcess><mThreadConcurrency value="9"/><mFileWriterBufferSize value="2048"/><mOwn w="y"/></VideoTransferProcess>
        <VeldaMeshProcess><mPointCloudSearchCount value="16"/></VeldaMeshProcess></_Lumora>)");
    const XmlParser joined(slots);
    const XmlParser video = section(joined, "VideoTransferProcess");
    EXPECT_EQ(video.child("mThreadConcurrency").value(int64_t(1)), 4);
    EXPECT_EQ(video.child("mFileWriterBufferSize").value(int64_t(0)), 2048);
    // A setting comes whole from the earliest slot, whatever its attribute is called.
    EXPECT_EQ(video.child("mOwn").value("d"), "x");
    EXPECT_EQ(section(joined, "VeldaMeshProcess").child("mPointCloudSearchCount").value(int64_t(8)), 16);
    const auto order = video.children();
    ASSERT_EQ(order.size(), 3);
    EXPECT_EQ(order[0].name(), "mThreadConcurrency");
    EXPECT_EQ(order[1].name(), "mOwn");
    EXPECT_EQ(order[2].name(), "mFileWriterBufferSize");

    // A later slot alone gives its own values; nothing at all gives nothing.
    ORN::Array<XmlParser> late(3);
    late[2] = slots[2];
    EXPECT_EQ(section(XmlParser(late), "VideoTransferProcess").child("mThreadConcurrency").value(int64_t(1)), 9);
    EXPECT_FALSE(XmlParser(ORN::Array<XmlParser>(3)).exist());
}

TEST(XmlSettings, JoinNeverMixesTheAttributesOfOneSetting) {
    const auto joined = [](const char *first, const char *second) {
        ORN::Array<XmlParser> slots(3);
        slots[0] = XmlParser(std::string("<_Lumora><P>") + first + "</P></_Lumora>");
        slots[1] = XmlParser(std::string("<_Lumora><P>") + second + "<mOther value=\"2\"/></P></_Lumora>");
        return section(XmlParser(slots), "P");
    };
    // first slot's element, second slot's element, what the joined one reads (default 1)
    const std::tuple<const char *, const char *, int> cases[] = {
        {"<k value=\"4\"/>", "<k v=\"9\"/>", 4},          {"<k v=\"4\"/>", "<k value=\"9\"/>", 4},
        {"<k value=\"4\"/>", "<k value=\"9\" more=\"3\"/>", 4}, {"<k a=\"4\" b=\"5\"/>", "<k value=\"9\"/>", 1},
        {"<k/>", "<k value=\"9\"/>", 1},                     {"", "<k v=\"9\"/>", 9}};
    for (const auto &[first, second, expected] : cases) {
        const XmlParser p = joined(first, second);
        EXPECT_EQ(p.child("k").value(1), expected) << first << " + " << second;
        EXPECT_EQ(p.child("mOther").value(0), 2) << first << " + " << second;
    }
}

TEST(XmlSettings, ElementsOutliveTheirDocument) {
    XmlParser kept;
    {
        ORN::Array<XmlParser> slots(2);
        slots[0] = XmlParser("<a><b><c value='1'/></b></a>");
        slots[1] = XmlParser("<a><b><d value='2'/></b></a>");
        kept = XmlParser(slots).child("a").child("b");
    }
    EXPECT_EQ(kept.child("c").value(0), 1);
    EXPECT_EQ(kept.child("d").value(0), 2);
}

} // namespace
