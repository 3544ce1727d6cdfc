// .npy files: what is accepted has the bytes that its shape says, within the limit, read from no further than
// the file's own end; and is the same array when the writer's file of it is read again.
#include "npy.h"

#include <algorithm>
#include <cstring>

#include "fuzz.h"

namespace {

using fuzz::must;

// A file in memory, which notes how far it was read.
struct File {
    fuzz::Bytes bytes;
    size_t used = 0;

    npy::Read reader() {
        return [this](void* to, size_t size) {
            const size_t count = std::min(size, bytes.size() - used);
            if (count > 0)
                std::memcpy(to, bytes.data() + used, count);
            used += count;
            return count;
        };
    }
};

// Null for a refusal, which is one sentence.
std::optional<npy::Array> read(File& file, size_t max_bytes, std::optional<npy::Type> wanted) {
    try {
        return npy::read(file.reader(), max_bytes, wanted);
    } catch (const npy::Error& error) {
        must(error.what()[0] != '\0', "a refusal says why");
        return std::nullopt;
    }
}

bool same(const npy::Array& a, const npy::Array& b) {
    return a.type == b.type && a.shape == b.shape && a.bytes == b.bytes;
}

std::optional<npy::Array> check(fuzz::Bytes bytes, size_t max_bytes, std::optional<npy::Type> wanted) {
    File file{bytes};
    const auto array = read(file, max_bytes, wanted);
    if (!array)
        return array;
    must(file.used == bytes.size(), "what is accepted is the whole file");
    must(array->bytes.size() <= max_bytes, "an array is within the limit");
    must(array->bytes.size() == npy::byte_size(array->type, array->shape), "an array has its shape's bytes");

    // A plain shape of 32 axes is as much as the writer takes, and a reader never gives more.
    const std::string header = npy::header_of(*array);
    std::vector<uint8_t> rewritten(header.begin(), header.end());
    rewritten.insert(rewritten.end(), array->bytes.begin(), array->bytes.end());
    File again{rewritten};
    const auto reread = read(again, max_bytes, std::nullopt);
    must(reread && same(*array, *reread), "what the writer wrote reads as what it was");

    if (!array->bytes.empty()) {
        File once_more{rewritten};
        must(!read(once_more, array->bytes.size() - 1, std::nullopt), "a limit is kept");
        rewritten.pop_back();
        File cut{rewritten};
        must(!read(cut, max_bytes, std::nullopt), "a truncated file is refused");
    }
    return array;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMaxBytes = 1 << 20;
    const fuzz::Bytes bytes(data, size);
    const auto plain = check(bytes, kMaxBytes, std::nullopt);
    for (const npy::Type wanted : npy::kTypes) {
        const auto array = check(bytes, kMaxBytes, wanted);
        if (!array)
            continue;
        must(plain.has_value(), "what can be converted can be read as it is");
        must(array->type == wanted || same(*array, *plain), "what is not foreign is never converted");
    }
    return 0;
}
