// JSON, strictly: no key twice, no key that nobody knows, and each value is what its place wants. Every
// complaint names the file and the path of keys to the value. Reading and looking at a document takes time in
// proportion to its size.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "number.h"

namespace tool {

// The longest document that is read; what a file claims about its size is not asked.
inline constexpr uint64_t kMaxDocument = uint64_t{512} << 20;

class Json;

// A document: its values in one array, the members of each object and list side by side.
class Document {
  public:
    // Reads a file; throws BadInput.
    explicit Document(std::string file);
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    Json root() const;

  private:
    friend class Json;
    friend class DocumentReader;

    enum class Kind : uint8_t { Null, False, True, Integer, Huge, Real, Text, Key, List, Object };

    // 16 bytes, so that a document is not much larger in memory than it is on disk.
    struct Node {
        union {
            int64_t integer;
            double real;
            struct {
                uint32_t first, count;  // characters of a text, or the nodes of a list or object
            } part;
        };
        uint32_t parent = 0;  // node of the list or object around it; of the last node, the root, any
        Kind kind = Kind::Null;
    };
    static_assert(sizeof(Node) == 16);

    std::string_view text_of(const Node& node) const {
        return std::string_view(characters_).substr(node.part.first, node.part.count);
    }
    std::string path_of(size_t node) const;

    std::string file_;
    std::vector<Node> nodes_;  // of an object key, value, key, value, ...
    std::string characters_;
};

// A value inside a document, which must outlive it.
class Json {
  public:
    Json(const Document& document, size_t node) : document_(&document), node_(node) {}

    // Ends the program: "FILE: PATH: what".
    [[noreturn]] void fail(const std::string& what) const;

    bool is_object() const { return node().kind == Document::Kind::Object; }
    bool is_text() const { return node().kind == Document::Kind::Text; }
    bool is_null() const { return node().kind == Document::Kind::Null; }

    // Members of an object in the order of the file.
    std::vector<std::pair<std::string_view, Json>> members() const;
    // Refuses keys that are not in `known`.
    void allow_only(std::initializer_list<const char*> known) const;
    std::optional<Json> find(std::string_view key) const;
    Json at(std::string_view key) const;

    std::vector<Json> elements() const;

    std::string text() const;
    // `wanted` says what the place takes, for the complaint.
    Number number(const char* wanted) const;
    uint32_t u32() const;
    uint32_t float_bits() const;
    bool truth() const;

  private:
    friend class Document;

    // What an object in a list calls itself, if it does: complaints name it beside its number.
    std::optional<std::string_view> label() const;
    const Document::Node& node() const { return document_->nodes_[node_]; }
    // Nodes inside an object or list.
    size_t begin() const { return node().part.first; }
    size_t end() const { return begin() + node().part.count; }
    void want_object() const;

    const Document* document_;
    size_t node_;
};

}  // namespace tool
