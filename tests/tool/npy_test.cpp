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
    const std::string
        only =
            " is not supported, only <f4, <i4, <i2, |i1 and |u1, and to be converted <i8, <u2, <u4, <f8, "
            "|b1 and <f2",
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
        {file_of(dictionary("<c8", "(1,)"), "xxxxxxxx"), "element type '<c8'" + only},
        {file_of(dictionary("<f8", "(2, 3)"), std::string(48, 'x')), "u1 (2, 24)"},
        {file_of(dictionary("<u2", "()"), "xx"), "u1 (2,)"},
        {file_of("{'descr': [('x', '<f4')], 'fortran_order': False, 'shape': (1,)}", "xxxx"),
         "records are not supported" + only.substr(only.find(','))},
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

// What comes of a file whose elements are brought into rows or converted: its elements, or why not.
TEST(Npy, ConvertsByOneRule) {
    const auto file = [](const std::string& descr, const std::string& shape, const std::string& elements,
                         const char* order = "False") {
        return file_of("{'descr': '" + descr + "', 'fortran_order': " + order + ", 'shape': " + shape + ", }",
                       elements);
    };
    const std::string i8 = "\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F\0\0\0\0\0\0\0"s;  // -2, 127
    const std::string f8 = "\0\0\0\0\0\0\xF8\x3F"s;                                // 1.5
    const std::string huge = "\0\0\0\0\0\0\xF8\x7E"s;
    const struct {
        std::string contents;
        npy::Type wanted;
        std::string elements;
    } rows[] = {
        {file("<i8", "(2,)", i8), npy::Type::i1, "\xFE\x7F"},
        {file("<i8", "(2,)", i8), npy::Type::f4, "\0\0\0\xC0\0\0\xFE\x42"s},
        {file("<i8", "(2,)", i8), npy::Type::u1, "element 0 of type '<i8' does not fit into u1"},
        {file("<u2", "(1,)", "\xFF\xFF"), npy::Type::i4, "\xFF\xFF\0\0"s},
        {file("<u2", "(1,)", "\xFF\xFF"), npy::Type::i2, "element 0 of type '<u2' does not fit into i2"},
        {file("<u2", "(1,)", "\x80\0"s), npy::Type::i1, "element 0 of type '<u2' does not fit into i1"},
        {file("<u4", "(1,)", "\xFF\xFF\xFF\xFF"), npy::Type::i4,
         "element 0 of type '<u4' does not fit into i4"},
        {file("<u4", "(1,)", "\1\0\0\1"s), npy::Type::f4, "\0\0\x80\x4B"s},  // to even
        {file("<f8", "(1,)", f8), npy::Type::f4, "\0\0\xC0\x3F"s},
        {file("<f8", "(1,)", huge), npy::Type::f4, "element 0 of type '<f8' does not fit into f4"},
        {file("<f8", "(1,)", f8), npy::Type::i4, "elements of type '<f8' become f4, not i4"},
        {file("|b1", "(3,)", "\0\1\2"s), npy::Type::u1, "\0\1\1"s},
        // -1, infinity, the least subnormal, NaN
        {file("<f2", "(4,)", "\0\xBC\0\x7C\1\0\1\x7E"s), npy::Type::f4,
         "\0\0\x80\xBF\0\0\x80\x7F\0\0\x80\x33\0\0\xC0\x7F"s},
        {file("|u1", "(2, 3)", "adbecf", "True"), npy::Type::u1, "abcdef"},
        {file("<i2", "(2, 1, 2)", "aaccbbdd", "True"), npy::Type::i2, "aabbccdd"},
        {file("|u1", "()", "x", "True"), npy::Type::u1, "x"},
        {file("<u2", "(2, 2)", "a\0c\0b\0d\0"s, "True"), npy::Type::u1, "abcd"},
    };
    for (const auto& row : rows) {
        size_t used = 0;
        std::string got;
        try {
            const npy::Array array = npy::read(
                [&](void* to, size_t size) {
                    const size_t count = row.contents.copy(static_cast<char*>(to), size, used);
                    used += count;
                    return count;
                },
                100, row.wanted);
            got.assign(array.bytes.begin(), array.bytes.end());
        } catch (const npy::Error& error) {
            got = error.what();
        }
        EXPECT_EQ(got, row.elements);
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

    npy::Shape fits(21, 1);  // a header that needs no blanks
    fits[0] = 10;
    for (const npy::Shape& shape : {npy::Shape{}, {6}, {6, 0}, npy::Shape(32, 1), fits}) {
        array.shape = shape;
        array.bytes.resize(npy::byte_size(array.type, shape), 7);
        const std::string header = npy::header_of(array);
        EXPECT_EQ(verdict(header + std::string(array.bytes.size(), '\7')), "i2 " + npy::to_string(shape));
        EXPECT_EQ(header.size() % 64, 0u);
        EXPECT_LT(header.size() - header.rfind('}') - 2, 64u);
    }
    array.shape = {5};
    EXPECT_THROW(npy::header_of(array), npy::Error);
    EXPECT_THROW(npy::header_of({npy::Type::u1, npy::Shape(33, 1), {1}}), npy::Error);
}

}  // namespace
