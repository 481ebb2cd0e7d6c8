#include "ZARN_Common/Fingerprint.h"

#include "__ORN__/orn_basic.h"
#include "__ORN__/orn_serialization.h"

#include <cstdio>
#include <cstdlib>

namespace ZARN {

Fingerprint &Fingerprint::add(const void *data, std::size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(data);
    for (std::size_t i = 0; i < size; ++i)
        mHash = (mHash ^ bytes[i]) * 1099511628211ull;
    return *this;
}

Fingerprint &Fingerprint::add_file(const ORN::JobDirectory &job, std::string_view relative) {
    const ORN::JobDirectory::STAMP s = job.stamp(relative);
    return add(relative).add(s.mSize).add(s.mModified);
}

Fingerprint &Fingerprint::add_folder(const ORN::JobDirectory &job, std::string_view relative) {
    for (const ORN::String<char> &name : job.list_files(relative))
        add_file(job, ORN::String<char>(relative) + "/" + name);
    return add(relative);
}

ORN::String<char> Fingerprint::text() const {
    char out[17];
    std::snprintf(out, sizeof(out), "%016llx", static_cast<unsigned long long>(mHash));
    return out;
}

FingerprintRecord::FingerprintRecord(const ORN::JobDirectory &job, ORN::String<char> file)
    : mJob(job), mFile(std::move(file)) {
    if (!mJob.find_file(mFile))
        return;
    ORN::try_run([&] {
        const ORN::JsonParser document(mJob.load_file(mFile));
        for (const ORN::JsonParser &entry : document.children())
            if (entry.string_type())
                mEntries.append(ORN::PACK<ORN::String<char>, ORN::String<char>>{ORN::String<char>(entry.name()),
                                                                                  entry.value()});
    });
}

bool FingerprintRecord::up_to_date(std::string_view work, const ORN::String<char> &fingerprint,
                                   const ORN::Array<ORN::String<char>> &outputs) const {
    if (forced())
        return false;
    bool recorded = false;
    for (const auto &entry : mEntries)
        recorded = recorded || (entry.mP1 == work && entry.mP2 == fingerprint);
    if (!recorded)
        return false;
    for (const ORN::String<char> &output : outputs)
        if (!mJob.find_file(output))
            return false;
    return true;
}

void FingerprintRecord::set(std::string_view work, const ORN::String<char> &fingerprint, bool save_now) {
    ORN::Array<ORN::PACK<ORN::String<char>, ORN::String<char>>> kept;
    for (auto &entry : mEntries)
        if (entry.mP1 != work)
            kept.append(std::move(entry));
    if (!fingerprint.empty())
        kept.append(ORN::PACK<ORN::String<char>, ORN::String<char>>{ORN::String<char>(work), fingerprint});
    mEntries = std::move(kept);
    if (save_now)
        save();
}

void FingerprintRecord::save() const {
    ORN::JsonWriter writer(64 + 48 * mEntries.size());
    writer.raw("{");
    for (ORN::INDEX i = 0; i < mEntries.size(); ++i) {
        if (i > 0)
            writer.comma();
        writer.key(mEntries[i].mP1).string(mEntries[i].mP2);
    }
    writer.raw("}");
    mJob.save_file(mFile, writer.text());
}

bool FingerprintRecord::forced() {
    const char *value = std::getenv("ZARN_FORCE");
    return value != nullptr && std::string_view(value) == "1";
}

} // namespace ZARN
