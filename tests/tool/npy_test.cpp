// The .npy reader takes what numpy writes and refuses everything else by name; the writer writes what numpy
// reads.
#include "npy.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace std::string_literals;

// A file put together by hand: header text as given, blanks and line break added as numpy does.
std::string file_of(const std::string& dictionary, const std::string& elements, char major = 1) {
    std::string header = dictionary + std::string(20, ' ') + "\n";
    std::string contents = "\x93NUMPY"s + major + '\0';
    contents += static_cast<char>(header.size() & 0xFF);
    contents += static_cast<char>(header.size() >> 8);
    if (major != 1)
        contents += "\0\0"s;
    return contents + header + elements;
}

std::string dictionary(const std::string& descr, const std::string& shape) {
    return "{'descr': '" + descr + "', 'fortran_order': False, 'shape': " + shape + ", }";
}

std::string refusal(const std::string& contents) {
    try {
        npy::parse(contents);
    } catch (const npy::Error& error) {
        return error.what();
    }
    return "accepted";
}

TEST(Npy, ReadsEveryTypeAndVersion) {
    const struct {
        const char* descr;
        npy::Type type;
        size_t size;
    } types[] = {{"<f4", npy::Type::f4, 4},
                 {"<i4", npy::Type::i4, 4},
                 {"<i2", npy::Type::i2, 2},
                 {"|i1", npy::Type::i1, 1},
                 {"|u1", npy::Type::u1, 1}};
    for (const auto& [descr, type, size] : types) {
        for (const char version : {'\1', '\2'}) {
            const std::string elements(6 * size, '\x5A');
            const npy::Array array = npy::parse(file_of(dictionary(descr, "(2, 3)"), elements, version));
            EXPECT_EQ(array.type, type);
            EXPECT_EQ(array.shape, (npy::Shape{2, 3}));
            EXPECT_EQ(array.count(), 6u);
            EXPECT_EQ(std::string(array.bytes.begin(), array.bytes.end()), elements);
        }
    }
}

TEST(Npy, ReadsEverySpellingOfTheHeader) {
    const struct {
        const char* dictionary;
        npy::Shape shape;
    } headers[] = {
        {"{'descr': '|u1', 'fortran_order': False, 'shape': (), }", {}},
        {"{'descr': '|u1', 'fortran_order': False, 'shape': (1,), }", {1}},
        {"{'shape':(1,1,1),'fortran_order':False,'descr':'|u1'}", {1, 1, 1}},
        {"  { \"descr\" : \"|u1\" , \"shape\" : ( 1 , 1 , ) , 'fortran_order' : False }", {1, 1}},
    };
    for (const auto& [text, shape] : headers)
        EXPECT_EQ(npy::parse(file_of(text, "x")).shape, shape) << text;
    EXPECT_EQ(npy::parse(file_of(dictionary("<f4", "(3, 0)"), "")).count(), 0u);
}

TEST(Npy, RefusesEveryTruncationAndEveryAddition) {
    for (const char version : {'\1', '\2'}) {
        const std::string whole = file_of(dictionary("<i2", "(2, 3)"), std::string(12, 'x'), version);
        ASSERT_EQ(refusal(whole), "accepted");
        for (size_t size = 0; size < whole.size(); ++size)
            EXPECT_NE(refusal(whole.substr(0, size)), "accepted") << size << " bytes";
        EXPECT_EQ(refusal(whole + "x"), "shape (2, 3) of i2 needs 12 bytes of elements and the file has 13");
    }
}

TEST(Npy, RefusesByName) {
    const std::string good = dictionary("|u1", "(1,)");
    const struct {
        std::string contents;
        const char* message;
    } files[] = {
        {"", "the file ends inside the magic string"},
        {"PK\3\4", "the file is not a .npy file"},
        {file_of(good, "x", 3), "format version 3.0 is not supported, only 1.0 and 2.0"},
        {"\x93NUMPY\1\1"s, "format version 1.1 is not supported, only 1.0 and 2.0"},
        {"\x93NUMPY\2\0\xFF\xFF\xFF\xFF{"s, "the file ends inside the header"},
        {file_of(dictionary(">f4", "(1,)"), "xxxx"),
         "element type '>f4' is not supported, only <f4, <i4, <i2, |i1 and |u1"},
        {file_of(dictionary("<f8", "(1,)"), "xxxxxxxx"),
         "element type '<f8' is not supported, only <f4, <i4, <i2, |i1 and |u1"},
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
        {file_of(dictionary("|u1", "(-1,)"), "x"), "the shape has a dimension that is not a plain number"},
        {file_of(dictionary("|u1", "(1.0,)"), "x"), "the shape is not a tuple"},
        {file_of(dictionary("|u1", "(01,)"), "x"), "the shape has a dimension that is not a plain number"},
        {file_of(dictionary("|u1", "(,)"), "x"), "the shape has a dimension that is not a plain number"},
        {file_of(dictionary("|u1", "(1, 2 3)"), "x"), "the header lacks a ')' before '3), }       '"},
        // Products that would wrap to the size of what follows, in 32 and in 64 bits.
        {file_of(dictionary("<f4", "(4294967296, 4294967296)"), ""), "too large"},
        {file_of(dictionary("<f4", "(4611686018427387905,)"), "xxxx"), "too large"},
        {file_of(dictionary("|u1", "(18446744073709551617,)"), "x"), "the shape is too large"},
        {file_of(dictionary("|u1", "(0, 4294967296, 4294967296)"), ""), "too large"},
        {file_of(dictionary("<f4", "(1073741824, 1073741824, 16)"), ""), "too large"},
    };
    for (const auto& [contents, message] : files)
        EXPECT_NE(refusal(contents).find(message), std::string::npos)
            << refusal(contents) << "\ninstead of " << message;

    std::string deep = "(";
    for (int i = 0; i < 33; ++i)
        deep += "1,";
    EXPECT_EQ(refusal(file_of(dictionary("|u1", deep + ")"), "x")), "the shape has more than 32 dimensions");
}

TEST(Npy, WritesWhatNumpyWrites) {
    // As numpy 1.24 saves np.array([[1, 2, 3]], np.int16).
    const std::string expected =
        "\x93NUMPY\1\0v\0{'descr': '<i2', 'fortran_order': False, 'shape': (1, 3), }"s +
        std::string(58, ' ') + "\n" + "\1\0\2\0\3\0"s;
    npy::Array array{npy::Type::i2, {1, 3}, {1, 0, 2, 0, 3, 0}};
    EXPECT_EQ(npy::format(array), expected);
    EXPECT_EQ(array.values<int16_t>(), (std::vector<int16_t>{1, 2, 3}));
    EXPECT_THROW(array.values<float>(), npy::Error);

    for (const npy::Shape& shape : {npy::Shape{}, {6}, {6, 0}, npy::Shape(32, 1)}) {
        array.shape = shape;
        array.bytes.resize(npy::byte_size(array.type, shape), 7);
        const std::string contents = npy::format(array);
        const npy::Array again = npy::parse(contents);
        EXPECT_EQ(again.shape, shape);
        EXPECT_EQ(again.bytes, array.bytes);
        EXPECT_EQ((contents.size() - array.bytes.size()) % 64, 0u);
    }
    array.shape = {5};
    EXPECT_THROW(npy::format(array), npy::Error);
}

TEST(Npy, FilesAppearWholeOrNotAtAll) {
    std::string folder = ::testing::TempDir() + "npy_test.XXXXXX";
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/x.npy";
    const auto entries = [&] { return std::distance(std::filesystem::directory_iterator(folder), {}); };
    const npy::Array array{npy::Type::u1, {2}, {1, 2}};

    { const npy::StagedFile abandoned(path, npy::format(array)); }
    EXPECT_EQ(entries(), 0);
    npy::save(path, array);
    EXPECT_EQ(npy::load(path).bytes, array.bytes);
    EXPECT_EQ(entries(), 1);

    std::ofstream(path, std::ios::binary | std::ios::trunc) << npy::format(array).substr(0, 129);
    const auto message = [](const std::string& of) {
        try {
            npy::load(of);
        } catch (const npy::Error& error) {
            return std::string(error.what());
        }
        return "accepted"s;
    };
    EXPECT_EQ(message(path), path + ": shape (2,) of u1 needs 2 bytes of elements and the file has 1");
    EXPECT_EQ(message(folder), folder + ": cannot read the file (Is a directory)");
    EXPECT_EQ(message(path + "x"), path + "x: cannot open the file (No such file or directory)");
    EXPECT_THROW(npy::save(folder + "/none/x.npy", array), npy::Error);
    std::filesystem::remove_all(folder);
}

}  // namespace
