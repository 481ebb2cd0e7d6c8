// JSON parse throughput of ORN::JsonParser against RapidJSON (DOM) and
// nlohmann::json on two generated ~10 MB documents, and member lookup by
// name in an object with 10^4 members. The same documents are also parsed
// through the 64-bit links that texts above 2 GiB get, and with
// ZARN_JSON_BENCH_LARGE set, texts just below and above 2 GiB. After the runs the
// ratios of ORN's throughput to each peer's are printed.
#include "__ORN__/orn_serialization.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t TARGET_SIZE = 10u << 20;

// A stitch plan: image and video records with names, paths and numbers,
// indented as a pretty printer writes it.
const std::string &stitch_plan() {
    static const std::string text = [] {
        std::mt19937 random(7);
        std::string t = "{\n  \"stitch_main_param\": {\n    \"image_file\": [\n";
        const char *configs[] = {"default", "indoor_low_light", "outdoor", "hdr_dual"};
        int i = 0;
        while (t.size() < TARGET_SIZE * 9 / 10) {
            const std::string point = "point_" + std::to_string(100000 + i);
            const std::string dir = "D:/capture/job_20240311/" + point + "/";
            t += i ? ",\n      {\n" : "      {\n";
            t += "        \"dst1\": \"caches/panorama/" + point + ".jpg\",\n";
            t += "        \"name\": \"" + point + "\",\n";
            t += "        \"raw1\": \"" + dir + "raw_up.jpg\",\n";
            t += "        \"raw2\": \"" + dir + "raw_down.jpg\",\n";
            for (int g = 1; g <= 2; ++g)
                for (int s = 0; s < 4; ++s)
                    t += "        \"src" + std::to_string(g) + "_" + std::to_string(s) + "\": \"" + dir + "src" +
                         std::to_string(g) + "_" + std::to_string(s) + "_ev" + std::to_string(int(random() % 5) - 2) + ".jpg\",\n";
            t += "        \"config\": \"" + std::string(configs[random() % 4]) + "\",\n";
            t += "        \"hdr\": " + std::to_string(random() % 2 ? 3 : 0) + ",\n";
            t += "        \"resolution\": " + std::to_string(1 + random() % 3) + ",\n";
            t += "        \"is_main\": " + std::to_string(i % 7 == 0) + "\n      }";
            ++i;
        }
        t += "\n    ],\n    \"video_file\": [\n";
        for (int v = 0; t.size() < TARGET_SIZE; ++v) {
            const std::string name = "point_" + std::to_string(100000 + v);
            t += v ? ",\n      {\n" : "      {\n";
            t += "        \"dst4\": \"caches/videos/" + name + ".mp4\",\n";
            t += "        \"name\": \"" + name + "\",\n";
            for (int s = 1; s <= 4; ++s)
                t += "        \"src" + std::to_string(s) + "\": \"D:/capture/job_20240311/video/" + name + "_" +
                     std::to_string(s) + ".mp4\",\n";
            t += "        \"con\": \"video_default\"\n      }";
        }
        t += "\n    ]\n  }\n}\n";
        return t;
    }();
    return text;
}

// Rows of mixed numbers (integers, decimals, exponents) and short strings,
// written compactly.
const std::string &mixed_values() {
    static const std::string text = [] {
        std::mt19937 random(11);
        std::uniform_real_distribution<double> real(-1000.0, 1000.0);
        const char *words[] = {"alpha", "beta", "gamma\\n", "delta epsilon", "z", "caf\\u00e9", "path/to/file.bin"};
        std::string t = "[";
        char number[64];
        for (int row = 0; t.size() < TARGET_SIZE; ++row) {
            t += row ? ",[" : "[";
            for (int c = 0; c < 12; ++c) {
                if (c)
                    t += ',';
                switch (random() % 4) {
                case 0:
                    t += std::to_string(int(random() % 200000) - 100000);
                    break;
                case 1:
                    std::snprintf(number, sizeof(number), "%.6f", real(random));
                    t += number;
                    break;
                case 2:
                    std::snprintf(number, sizeof(number), "%.9e", real(random) * 1e-5);
                    t += number;
                    break;
                default:
                    t += '"';
                    t += words[random() % 7];
                    t += '"';
                }
            }
            t += ']';
        }
        t += ']';
        return t;
    }();
    return text;
}

const std::string &document(int which) { return which == 0 ? stitch_plan() : mixed_values(); }

void BM_Parse_ORN(benchmark::State &state) {
    const std::string &text = document(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        ORN::JsonParser doc(text);
        benchmark::DoNotOptimize(doc.index());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// The same parse through the table of 64-bit links, by lowering the limit
// of 32-bit ones for the run.
void BM_Parse_ORN_Wide(benchmark::State &state) {
    const std::string &text = document(static_cast<int>(state.range(0)));
    const ORN::INDEX saved = ORN::JsonParser::Private::narrow_limit();
    ORN::JsonParser::Private::set_narrow_limit(0);
    for (auto _ : state) {
        ORN::JsonParser doc(text);
        benchmark::DoNotOptimize(doc.index());
    }
    ORN::JsonParser::Private::set_narrow_limit(saved);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// Texts of about 2 GB: the stitch plan repeated in one array, 200 times
// (2.1 GB, just below 2 GiB: 32-bit links) and 230 times (2.4 GB, above
// 2 GiB: only 64-bit links can index it). Takes about 8 GB of memory.
void BM_Parse_ORN_Large(benchmark::State &state) {
    const int copies = static_cast<int>(state.range(0));
    std::string text = "[";
    text.reserve(copies * (stitch_plan().size() + 1) + 1);
    for (int i = 0; i < copies; ++i)
        (text += stitch_plan()) += i + 1 < copies ? "," : "]";
    const ORN::INDEX links = static_cast<ORN::INDEX>(text.size()) > ORN::JsonParser::Private::narrow_limit() ? 8 : 4;
    for (auto _ : state) {
        ORN::JsonParser doc(text);
        if (ORN::JsonParser::Private::link_size(doc) != links || doc.size() != copies ||
            doc.children()[copies - 1].child("stitch_main_param").child("image_file").first().child("name").value() != "point_100000")
            state.SkipWithError("the large text did not read back");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["GB"] = static_cast<double>(text.size()) / 1e9;
}

void BM_Parse_RapidJSON(benchmark::State &state) {
    const std::string &text = document(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        rapidjson::Document doc;
        doc.Parse(text.c_str(), text.size());
        if (doc.HasParseError())
            state.SkipWithError("RapidJSON rejected the document");
        benchmark::DoNotOptimize(doc.IsObject());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_Parse_nlohmann(benchmark::State &state) {
    const std::string &text = document(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        nlohmann::json doc = nlohmann::json::parse(text);
        benchmark::DoNotOptimize(doc.is_object());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// Member lookup: every key of a 10^4-member object once, in shuffled order.
constexpr int MEMBERS = 10000;

const std::string &wide_object() {
    static const std::string text = [] {
        std::string t = "{";
        for (int i = 0; i < MEMBERS; ++i)
            t += (i ? ",\"member_" : "\"member_") + std::to_string(i) + "\":" + std::to_string(i);
        return t + "}";
    }();
    return text;
}

const std::vector<std::string> &lookup_keys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        for (int i = 0; i < MEMBERS; ++i)
            k.push_back("member_" + std::to_string(i));
        std::shuffle(k.begin(), k.end(), std::mt19937(3));
        return k;
    }();
    return keys;
}

void BM_Lookup_ORN(benchmark::State &state) {
    const ORN::JsonParser doc(wide_object());
    for (auto _ : state)
        for (const auto &k : lookup_keys())
            benchmark::DoNotOptimize(doc.child(k).index());
    state.SetItemsProcessed(state.iterations() * MEMBERS);
}

void BM_Lookup_RapidJSON(benchmark::State &state) {
    rapidjson::Document doc;
    doc.Parse(wide_object().c_str());
    for (auto _ : state)
        for (const auto &k : lookup_keys()) {
            const rapidjson::Value key(rapidjson::StringRef(k.data(), static_cast<rapidjson::SizeType>(k.size())));
            benchmark::DoNotOptimize(doc.FindMember(key));
        }
    state.SetItemsProcessed(state.iterations() * MEMBERS);
}

void BM_Lookup_nlohmann(benchmark::State &state) {
    const nlohmann::json doc = nlohmann::json::parse(wide_object());
    for (auto _ : state)
        for (const auto &k : lookup_keys())
            benchmark::DoNotOptimize(doc.find(k));
    state.SetItemsProcessed(state.iterations() * MEMBERS);
}

BENCHMARK(BM_Parse_ORN)->ArgName("doc")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_ORN_Wide)->ArgName("doc")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_RapidJSON)->ArgName("doc")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_nlohmann)->ArgName("doc")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup_ORN)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Lookup_RapidJSON)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Lookup_nlohmann)->Unit(benchmark::kMicrosecond);

// Console output as usual, then ORN's rate divided by each peer's, per
// document (doc:0 = stitch plan, doc:1 = mixed values) and for lookups.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With repetitions, the median stands for the benchmark.
        for (const Run &r : runs) {
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.error_occurred || (r.run_type != Run::RT_Iteration && !median))
                continue;
            const std::string name = r.run_name.str();
            if (!median && mMedian.count(name))
                continue;
            if (median)
                mMedian[name] = true;
            const auto bytes = r.counters.find("bytes_per_second");
            const auto items = r.counters.find("items_per_second");
            if (bytes != r.counters.end())
                mRate[name] = bytes->second.value;
            else if (items != r.counters.end())
                mRate[name] = items->second.value;
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        const auto line = [&](const char *label, const std::string &stem, const std::string &ours_name, const std::string &suffix) {
            const double ours = mRate[stem + ours_name + suffix];
            const double rapid = mRate[stem + "RapidJSON" + suffix];
            const double nlohmann = mRate[stem + "nlohmann" + suffix];
            const double narrow = mRate[stem + "ORN" + suffix];
            if (!(ours > 0 && rapid > 0 && nlohmann > 0))
                return;
            std::printf("%-34s ORN/RapidJSON = %.2f   ORN/nlohmann = %.2f", label, ours / rapid, ours / nlohmann);
            if (ours_name != "ORN" && narrow > 0)
                std::printf("   64-bit/32-bit links = %.2f", ours / narrow);
            std::printf("\n");
        };
        std::printf("\nstitch plan %.1f MB, mixed values %.1f MB\n", stitch_plan().size() / 1048576.0,
                    mixed_values().size() / 1048576.0);
        line("parse stitch plan", "BM_Parse_", "ORN", "/doc:0");
        line("parse mixed values", "BM_Parse_", "ORN", "/doc:1");
        line("parse stitch plan, 64-bit links", "BM_Parse_", "ORN_Wide", "/doc:0");
        line("parse mixed values, 64-bit links", "BM_Parse_", "ORN_Wide", "/doc:1");
        line("lookup 10^4 members", "BM_Lookup_", "ORN", "");
        const double below = mRate["BM_Parse_ORN_Large/copies:200/iterations:3"];
        const double above = mRate["BM_Parse_ORN_Large/copies:230/iterations:3"];
        if (below > 0 && above > 0)
            std::printf("parse 2.4 GB (64-bit links) / 2.1 GB (32-bit links) = %.2f\n", above / below);
    }

private:
    std::map<std::string, double> mRate;
    std::map<std::string, bool> mMedian;
};

// Number of values under (and including) a node, for the agreement check.
int64_t count_values(const ORN::JsonParser &p) {
    int64_t n = 1;
    for (ORN::JsonParser c = p.first(); c.exist(); c = c.brother())
        n += count_values(c);
    return n;
}

int64_t count_values(const rapidjson::Value &v) {
    int64_t n = 1;
    if (v.IsArray())
        for (const auto &c : v.GetArray())
            n += count_values(c);
    else if (v.IsObject())
        for (const auto &m : v.GetObject())
            n += count_values(m.value);
    return n;
}

// The parsers under comparison must read the documents alike.
bool documents_agree() {
    for (int which = 0; which < 2; ++which) {
        const std::string &text = document(which);
        rapidjson::Document theirs;
        theirs.Parse(text.c_str(), text.size());
        const int64_t ours = count_values(ORN::JsonParser(text));
        if (theirs.HasParseError() || ours != count_values(theirs)) {
            std::fprintf(stderr, "document %d: ORN and RapidJSON disagree\n", which);
            return false;
        }
    }
    const ORN::JsonParser plan(stitch_plan());
    const auto images = plan.child("stitch_main_param").child("image_file").children();
    return images.size() > 0 && images[0].child("name").value() == "point_100000" &&
           images[images.size() - 1].child("resolution").value(0) >= 1;
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!documents_agree())
        return 1;
    if (std::getenv("ZARN_JSON_BENCH_LARGE") != nullptr)
        benchmark::RegisterBenchmark("BM_Parse_ORN_Large", BM_Parse_ORN_Large)
            ->ArgName("copies")
            ->Arg(200)
            ->Arg(230)
            ->Iterations(3)
            ->Unit(benchmark::kMillisecond);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
