#pragma once

// Up-to-date checks: a fingerprint of what a piece of work reads (its
// parameters, and the size and modification time of its input files, as
// make has it: a copied or moved job keeps its results), and the record of
// the fingerprints with which a process's outputs were last made. Work
// whose outputs are all present and whose fingerprint is the recorded one
// is kept instead of redone, unless the run is forced (ZARN_FORCE=1, which
// `zarn run --force` sets).

#include "__ORN__/orn_array.h"
#include "__ORN__/orn_filesystem.h"

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace ZARN {

// FNV-1a over everything added; every text ends with a zero byte, so that
// ("ab", "c") and ("a", "bc") differ.
class Fingerprint {
public:
    Fingerprint &add(const void *data, std::size_t size);
    Fingerprint &add(std::string_view text) { return add(text.data(), text.size()).add("\0", 1); }
    template <class T>
        requires std::is_arithmetic_v<T>
    Fingerprint &add(T value) {
        return add(&value, sizeof(value));
    }
    // The size and modification time of a file of the job (-1 and 0 when it
    // is no regular file reached without links).
    Fingerprint &add_file(const ORN::JobDirectory &job, std::string_view relative);
    // The same for every regular file of a folder of the job, by name.
    Fingerprint &add_folder(const ORN::JobDirectory &job, std::string_view relative);
    // Sixteen hexadecimal digits.
    ORN::String<char> text() const;

private:
    ORN::uint64 mHash = 14695981039346656037ull;
};

// The fingerprints of a process's outputs, kept by the durable writer in a
// small JSON object of the job, {"<work>":"<fingerprint>",...}. An
// unreadable or malformed record counts as empty: everything is redone.
class FingerprintRecord {
public:
    FingerprintRecord(const ORN::JobDirectory &job, ORN::String<char> file);

    // True when the run is not forced, `work` was last made with this very
    // fingerprint and every one of its `outputs` is a regular file of the job.
    bool up_to_date(std::string_view work, const ORN::String<char> &fingerprint,
                    const ORN::Array<ORN::String<char>> &outputs) const;
    // Records `work` as made with `fingerprint` (an empty one forgets it), and
    // saves the record unless told not to.
    void set(std::string_view work, const ORN::String<char> &fingerprint, bool save_now = true);
    void save() const;

    // Whether this run redoes everything (ZARN_FORCE=1 in the environment).
    static bool forced();

private:
    ORN::JobDirectory mJob;
    ORN::String<char> mFile;
    ORN::Array<ORN::PACK<ORN::String<char>, ORN::String<char>>> mEntries;
};

} // namespace ZARN
