// The .npy format: a magic string, a version, the length of a header, the header (a Python dictionary in one
// line of text), and then the elements.
#include "npy.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <optional>

#include "foreign.h"
#include "input_file.h"

namespace npy {
namespace {

static_assert(std::endian::native == std::endian::little, "elements are copied as they stand in the file");

struct TypeRow {
    const char* name;
    const char* descr;
    size_t size;
};

// Indexed by Type.
constexpr TypeRow kRows[] = {
    {"f4", "<f4", 4}, {"i4", "<i4", 4}, {"i2", "<i2", 2}, {"i1", "|i1", 1}, {"u1", "|u1", 1},
};

const TypeRow& row(Type type) {
    return kRows[static_cast<size_t>(type)];
}

constexpr std::string_view kMagic = "\x93NUMPY";
constexpr const char* kSupported =
    ", only <f4, <i4, <i2, |i1 and |u1, and to be converted <i8, <u2, <u4, <f8, |b1 and <f2";
constexpr size_t kMaxRank = 32;
constexpr size_t kHeaderAlignment = 64;
// What version 1 can hold; version 2 was made for records.
constexpr size_t kMaxHeader = 65535;

// What a file holds. Of a foreign type `type` is that of its raw bytes.
struct Header {
    Type type = Type::u1;
    const Foreign* foreign = nullptr;
    Shape shape;
    bool fortran_order = false;

    size_t element_size() const { return foreign ? foreign->size : size_of(type); }
    const char* type_name() const { return foreign ? foreign->descr : name_of(type); }
};

// Reads the header's dictionary: exactly the keys descr, fortran_order and shape, each once, in any order.
class HeaderParser {
  public:
    explicit HeaderParser(std::string_view text) : rest_(text) {}

    Header parse() {
        Header header;
        bool type_seen = false, order_seen = false, shape_seen = false;
        const auto once = [](bool seen, const char* key) {
            if (seen)
                throw Error(std::string("the header has the key ") + key + " twice");
        };

        expect('{');
        while (!accept('}')) {
            const std::string_view key = quoted();
            expect(':');
            if (key == "descr") {
                once(type_seen, "descr");
                descr(header);
                type_seen = true;
            } else if (key == "fortran_order") {
                once(order_seen, "fortran_order");
                header.fortran_order = truth();
                order_seen = true;
            } else if (key == "shape") {
                once(shape_seen, "shape");
                header.shape = tuple();
                shape_seen = true;
            } else {
                throw Error("the header has the unknown key '" + std::string(key) + "'");
            }
            if (!accept(',')) {
                expect('}');
                break;
            }
        }
        // What remains is padding, closed by the line's end.
        skip_blanks();
        if (rest_ != "\n")
            throw Error("the header does not end in blanks and a line break");
        if (!type_seen)
            throw Error("the header has no key descr");
        if (!order_seen)
            throw Error("the header has no key fortran_order");
        if (!shape_seen)
            throw Error("the header has no key shape");
        return header;
    }

  private:
    void skip_blanks() {
        while (!rest_.empty() && rest_.front() == ' ')
            rest_.remove_prefix(1);
    }

    bool accept(char c) {
        skip_blanks();
        if (rest_.empty() || rest_.front() != c)
            return false;
        rest_.remove_prefix(1);
        return true;
    }

    void expect(char c) {
        if (!accept(c))
            throw Error(std::string("the header lacks a '") + c + "' before '" +
                        std::string(rest_.substr(0, 12)) + "'");
    }

    bool accept_word(std::string_view word) {
        skip_blanks();
        if (!rest_.starts_with(word))
            return false;
        rest_.remove_prefix(word.size());
        return true;
    }

    std::string_view quoted() {
        const char quote = accept('"') ? '"' : '\'';
        if (quote == '\'')
            expect('\'');
        const size_t end = rest_.find(quote);
        if (end == std::string_view::npos)
            throw Error("the header has a string without an end");
        const std::string_view text = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        return text;
    }

    void descr(Header& header) {
        if (skip_blanks(); rest_.starts_with('['))
            throw Error(std::string("records are not supported") + kSupported);
        const std::string_view text = quoted();
        for (const Type type : kTypes) {
            if (text == row(type).descr) {
                header.type = type;
                return;
            }
        }
        header.foreign = find_foreign(text);
        if (!header.foreign)
            throw Error("element type '" + std::string(text) + "' is not supported" + kSupported);
    }

    bool truth() {
        if (accept_word("True"))
            return true;
        if (!accept_word("False"))
            throw Error("fortran_order is neither True nor False");
        return false;
    }

    Shape tuple() {
        Shape shape;
        expect('(');
        while (!accept(')')) {
            if (shape.size() == kMaxRank)
                throw Error("the shape has more than 32 dimensions");
            shape.push_back(dimension());
            if (!accept(',')) {
                // Without a comma, one number in parentheses is no tuple.
                if (shape.size() == 1)
                    throw Error("the shape is not a tuple");
                expect(')');
                break;
            }
        }
        return shape;
    }

    size_t dimension() {
        skip_blanks();
        const auto digit = [&] { return !rest_.empty() && rest_.front() >= '0' && rest_.front() <= '9'; };
        if (!digit())
            throw Error("the shape has a dimension that is not a plain number");
        const bool leading_zero = rest_.front() == '0';
        size_t value = 0, digits = 0;
        for (; digit(); rest_.remove_prefix(1), ++digits) {
            const size_t next = static_cast<size_t>(rest_.front() - '0');
            if (value > (std::numeric_limits<size_t>::max() - next) / 10)
                throw Error("the shape is too large");
            value = value * 10 + next;
        }
        if (leading_zero && digits > 1)
            throw Error("the shape has a dimension that is not a plain number");
        return value;
    }

    std::string_view rest_;
};

}  // namespace

const char* name_of(Type type) {
    return row(type).name;
}

size_t size_of(Type type) {
    return row(type).size;
}

namespace {

size_t byte_size(size_t element_size, const Shape& shape) {
    // An axis of length 0 does not excuse the others.
    size_t bytes = element_size;
    bool empty = false;
    for (const size_t dimension : shape) {
        if (dimension == 0) {
            empty = true;
        } else if (bytes > static_cast<size_t>(std::numeric_limits<ptrdiff_t>::max()) / dimension) {
            throw Error("the shape " + to_string(shape) + " is too large");
        } else {
            bytes *= dimension;
        }
    }
    return empty ? 0 : bytes;
}

}  // namespace

size_t byte_size(Type type, const Shape& shape) {
    return byte_size(size_of(type), shape);
}

std::string to_string(const Shape& shape) {
    std::string text = "(";
    for (size_t i = 0; i < shape.size(); ++i)
        text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

namespace {

std::string take(const Read& from, size_t size, const char* what) {
    std::string taken(size, '\0');
    if (from(taken.data(), size) < size)
        throw Error(std::string("the file ends inside ") + what);
    return taken;
}

void check_magic(const Read& from) {
    std::string magic(kMagic.size(), '\0');
    magic.resize(from(magic.data(), magic.size()));
    if (!kMagic.starts_with(magic))
        throw Error("the file is not a .npy file");
    if (magic.size() < kMagic.size())
        throw Error("the file ends inside the magic string");
}

Header read_header(const Read& from) {
    check_magic(from);
    const std::string version = take(from, 2, "the version");
    const int major = static_cast<uint8_t>(version[0]), minor = static_cast<uint8_t>(version[1]);
    if ((major != 1 && major != 2) || minor != 0)
        throw Error("format version " + std::to_string(major) + "." + std::to_string(minor) +
                    " is not supported, only 1.0 and 2.0");
    size_t size = 0, shift = 0;
    for (const char byte : take(from, major == 1 ? 2 : 4, "the length of the header")) {
        size |= static_cast<size_t>(static_cast<uint8_t>(byte)) << shift;
        shift += 8;
    }
    if (size > kMaxHeader)
        throw Error("the header is longer than 65535 bytes");
    return HeaderParser(take(from, size, "the header")).parse();
}

// In pieces, so that a file which ends early costs no more than what it has.
std::vector<uint8_t> read_elements(const Read& from, size_t size, const std::string& needs) {
    constexpr size_t kPiece = 1 << 20;
    std::vector<uint8_t> bytes;
    while (bytes.size() < size) {
        const size_t have = bytes.size();
        bytes.resize(have + std::min(size - have, std::max(have, kPiece)));
        const size_t got = from(bytes.data() + have, bytes.size() - have);
        if (have + got < bytes.size())
            throw Error(needs + std::to_string(have + got));
    }
    char more;
    if (from(&more, 1) != 0)
        throw Error(needs + "more");
    return bytes;
}

}  // namespace

Array read(const Read& from, size_t max_bytes, std::optional<Type> wanted) {
    Header header = read_header(from);
    const size_t size = byte_size(header.element_size(), header.shape);
    const std::string what = "shape " + to_string(header.shape) + " of " + header.type_name();
    const bool converts = header.foreign && wanted;
    if (size > max_bytes || (converts && byte_size(*wanted, header.shape) > max_bytes))
        throw Error(what + " takes more than " + std::to_string(max_bytes) + " bytes");
    auto bytes = read_elements(
        from, size, what + " needs " + std::to_string(size) + " bytes of elements and the file has ");
    if (header.fortran_order)
        bytes = from_fortran_order(bytes, header.shape, header.element_size());
    if (converts)
        return {*wanted, std::move(header.shape), convert(*header.foreign, *wanted, bytes)};
    if (header.foreign) {
        if (header.shape.empty())
            header.shape.push_back(1);
        header.shape.back() *= header.element_size();
    }
    return {header.type, std::move(header.shape), std::move(bytes)};
}

Array load(const std::string& path, size_t max_bytes, std::optional<Type> wanted) {
    try {
        InputFile file(path);
        return read([&](void* to, size_t size) { return file.read(to, size); }, max_bytes, wanted);
    } catch (const Error& error) {
        throw Error(path + ": " + error.what());
    }
}

std::string header_of(const Array& array) {
    if (array.bytes.size() != byte_size(array.type, array.shape))
        throw Error("an array of shape " + to_string(array.shape) + " has " +
                    std::to_string(array.bytes.size()) + " bytes");
    if (array.shape.size() > kMaxRank)
        throw Error("the shape has more than 32 dimensions");

    std::string header = "{'descr': '";
    header += row(array.type).descr;
    header += "', 'fortran_order': False, 'shape': " + to_string(array.shape) + ", }";
    const size_t before = kMagic.size() + 4;  // version and header length
    const size_t unpadded = before + header.size() + 1;
    header.append((kHeaderAlignment - unpadded % kHeaderAlignment) % kHeaderAlignment, ' ');
    header += '\n';

    // 32 dimensions of 20 digits are far below what version 1 can hold.
    std::string contents(kMagic);
    contents += {'\1', '\0', static_cast<char>(header.size() & 0xFF), static_cast<char>(header.size() >> 8)};
    return contents + header;
}

}  // namespace npy
