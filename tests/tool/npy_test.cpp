// The .npy reader takes what numpy writes and refuses everything else by name; the writer writes what numpy
// reads. Files on disk are kelrt_test.py's.
#include "npy.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

// A file put together by hand: header text as given, blanks and line break added as numpy does.
std::string file_of(const std::string& dictionary, const std::string& elements, char major = 1,
                    size_t blanks = 20) {
    const std::string header = dictionary + std::string(blanks, ' ') + "\n";
    std::string contents = "\x93NUMPY"s + major + '\0';
    for (size_t i = 0; i < (major == 1 ? 2 : 4); ++i)
        contents += static_cast<char>(header.size() >> (8 * i) & 0xFF);
    return contents + header + elements;
}

std::string dictionary(const std::string& descr, const std::string& shape) {
    return "{'descr': '" + descr + "', 'fortran_order': False, 'shape': " + shape + ", }";
}

// "i2 (2, 3)", or why not.
std::string verdict(const std::string& contents, size_t max_bytes = SIZE_MAX) {
    size_t used = 0;
    const auto from = [&](void* to, size_t size) {
        const size_t count = contents.copy(static_cast<char*>(to), size, used);
        used += count;
        return count;
    };
    try {
        const npy::Array array = npy::read(from, max_bytes);
        EXPECT_EQ(std::string(array.bytes.begin(), array.bytes.end()),
                  contents.substr(used - array.bytes.size()));
        return npy::name_of(array.type) + (" " + npy::to_string(array.shape));
    } catch (const npy::Error& error) {
        EXPECT_LT(used, 100000u) << "read in vain: " << error.what();
        return error.what();
    }
}

TEST(Npy, TakesOrRefusesByName) {
    const std::string good = dictionary("|u1", "(1,)"), ones32 =
                                                            "1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, "
                                                            "1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1";
    const std::string only = " is not supported, only <f4, <i4, <i2, |i1 and |u1",
                      plain = "a dimension that is not a plain number";
    const std::string shape8 = dictionary("<i2", "(2, 2)"), bytes8 = "\1\2\3\4\5\6\7\10";
    const struct {
        std::string contents, verdict;
        size_t max_bytes = SIZE_MAX;
    } files[] = {
        {file_of(dictionary("<f4", "(2, 3)"), std::string(24, 'x')), "f4 (2, 3)"},
        {file_of(dictionary("<i4", "(2, 3)"), std::string(24, 'x')), "i4 (2, 3)"},
        {file_of(dictionary("<i2", "(2, 3)"), std::string(12, 'x'), 2), "i2 (2, 3)"},
        {file_of(dictionary("|i1", "(6,)"), "abcdef"), "i1 (6,)"},
        {file_of(dictionary("<f4", "(3, 0)"), ""), "f4 (3, 0)"},
        {file_of("{'descr': '|u1', 'fortran_order': False, 'shape': (), }", "x"), "u1 ()"},
        {file_of("{'shape':(1,1,1),'fortran_order':False,'descr':'|u1'}", "x"), "u1 (1, 1, 1)"},
        {file_of("  { \"descr\" : \"|u1\" , \"shape\" : ( 1 , 1 , ) , 'fortran_order' : False }", "x"),
         "u1 (1, 1)"},
        {file_of(dictionary("|u1", "(" + ones32 + ")"), "x"), "u1 (" + ones32 + ")"},
        {file_of(dictionary("|u1", "(" + ones32 + ", 1)"), "x"), "the shape has more than 32 dimensions"},
        {file_of(good, "x", 2, 65534 - good.size()), "u1 (1,)"},
        {file_of(good, "x", 2, 65535 - good.size()), "the header is longer than 65535 bytes"},
        {"\x93NUMPY\2\0\xFF\xFF\xFF\xFF{"s, "the header is longer than 65535 bytes"},
        {file_of(shape8, bytes8), "i2 (2, 2)", 8},
        {file_of(shape8, std::string(1000000, 'x')), "shape (2, 2) of i2 takes more than 7 bytes", 7},
        {file_of(shape8, std::string(1000000, 'x')),
         "shape (2, 2) of i2 needs 8 bytes of elements and the file has more"},
        {file_of(dictionary("|u1", "(9000000000,)"), "xxx"),
         sizeof(size_t) == 4
             ? "the shape is too large"
             : "shape (9000000000,) of u1 needs 9000000000 bytes of elements and the file has 3"},
        {"PK\3\4", "the file is not a .npy file"},
        {file_of(good, "x", 3), "format version 3.0 is not supported, only 1.0 and 2.0"},
        {"\x93NUMPY\1\1"s, "format version 1.1 is not supported, only 1.0 and 2.0"},
        {file_of(dictionary(">f4", "(1,)"), "xxxx"), "element type '>f4'" + only},
        {file_of(dictionary("<f8", "(1,)"), "xxxxxxxx"), "element type '<f8'" + only},
        {file_of("{'descr': [('x', '<f4')], 'fortran_order': False, 'shape': (1,)}", "xxxx"),
         "records are not supported, only <f4, <i4, <i2, |i1 and |u1"},
        {file_of("{'descr': '|u1', 'fortran_order': True, 'shape': (1,)}", "x"),
         "Fortran order is not supported, only C order"},
        {file_of("{'descr': '|u1', 'fortran_order': 0, 'shape': (1,)}", "x"),
         "fortran_order is neither True nor False"},
        {file_of("{'fortran_order': False, 'shape': (1,)}", "x"), "the header has no key descr"},
        {file_of("{'descr': '|u1', 'shape': (1,)}", "x"), "the header has no key fortran_order"},
        {file_of("{'descr': '|u1', 'fortran_order': False}", "x"), "the header has no key shape"},
        {file_of("{'descr': '|u1', 'descr': '|u1'}", "x"), "the header has the key descr twice"},
        {file_of("{'shape': (1,), 'shape': (1,)}", "x"), "the header has the key shape twice"},
        {file_of("{'fortran_order': False, 'fortran_order': False}", "x"),
         "the header has the key fortran_order twice"},
        {file_of("{'extra': 1}", "x"), "the header has the unknown key 'extra'"},
        {file_of("{'descr", "x"), "the header has a string without an end"},
        {file_of("[]", "x"), "the header lacks a '{' before '[]          '"},
        {file_of(good + "x", "x"), "the header does not end in blanks and a line break"},
        {file_of(good + "\n", "x"), "the header does not end in blanks and a line break"},
        {file_of(dictionary("|u1", "(1)"), "x"), "the shape is not a tuple"},
        {file_of(dictionary("|u1", "(1.0,)"), "x"), "the shape is not a tuple"},
        {file_of(dictionary("|u1", "(-1,)"), "x"), "the shape has " + plain},
        {file_of(dictionary("|u1", "(01,)"), "x"), "the shape has " + plain},
        {file_of(dictionary("|u1", "(,)"), "x"), "the shape has " + plain},
        {file_of(dictionary("|u1", "(1, 2 3)"), "x"), "the header lacks a ')' before '3), }       '"},
        // Products that would wrap to the size of what follows, in 32 and in 64 bits.
        {file_of(dictionary("<f4", "(4611686018427387905,)"), "xxxx"), "... too large"},
        {file_of(dictionary("|u1", "(18446744073709551617,)"), "x"), "the shape is too large"},
        {file_of(dictionary("|u1", "(0, 4294967296, 4294967296)"), ""), "... too large"},
        {file_of(dictionary("<f4", "(1073741824, 1073741824, 16)"), ""), "... too large"},
    };
    for (const auto& [contents, expected, max_bytes] : files) {
        const std::string got = verdict(contents, max_bytes);
        EXPECT_TRUE(got == expected || (expected.starts_with("...") && got.ends_with(expected.substr(3))))
            << got << "\ninstead of " << expected;
    }
}

TEST(Npy, RefusesEveryTruncation) {
    for (const char version : {'\1', '\2'}) {
        const std::string whole = file_of(dictionary("<i2", "(2, 3)"), std::string(12, 'x'), version);
        ASSERT_EQ(verdict(whole), "i2 (2, 3)");
        for (size_t size = 0; size < whole.size(); ++size)
            EXPECT_NE(verdict(whole.substr(0, size)).find("the file "), std::string::npos)
                << size << " bytes";
    }
}

TEST(Npy, WritesWhatNumpyWrites) {
    // As numpy 1.24 saves np.array([[1, 2, 3]], np.int16).
    npy::Array array{npy::Type::i2, {1, 3}, {1, 0, 2, 0, 3, 0}};
    EXPECT_EQ(npy::header_of(array),
              "\x93NUMPY\1\0v\0{'descr': '<i2', 'fortran_order': False, 'shape': (1, 3), }"s +
                  std::string(58, ' ') + "\n");
    EXPECT_EQ(array.values<int16_t>(), (std::vector<int16_t>{1, 2, 3}));
    EXPECT_THROW(array.values<float>(), npy::Error);

    for (const npy::Shape& shape : {npy::Shape{}, {6}, {6, 0}, npy::Shape(32, 1)}) {
        array.shape = shape;
        array.bytes.resize(npy::byte_size(array.type, shape), 7);
        const std::string header = npy::header_of(array);
        EXPECT_EQ(verdict(header + std::string(array.bytes.size(), '\7')), "i2 " + npy::to_string(shape));
        EXPECT_EQ(header.size() % 64, 0u);
    }
    array.shape = {5};
    EXPECT_THROW(npy::header_of(array), npy::Error);
    EXPECT_THROW(npy::header_of({npy::Type::u1, npy::Shape(33, 1), {1}}), npy::Error);
}

}  // namespace
