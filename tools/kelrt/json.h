// JSON, strictly: no key twice, no key that nobody knows, and each value is what its place wants. Every
// complaint names the file and the path of keys to the value.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "number.h"

namespace tool {

// A value inside a document, and where it is. The document must outlive it.
class Json {
  public:
    using Value = nlohmann::ordered_json;

    Json(const Value& value, std::string file, std::string path)
        : value_(&value), file_(std::move(file)), path_(std::move(path)) {}

    // Ends the program: "FILE: PATH: what".
    [[noreturn]] void fail(const std::string& what) const;

    bool is_object() const { return value_->is_object(); }
    bool is_text() const { return value_->is_string(); }

    // Members of an object in the order of the file. Refuses keys that are not in `known`.
    void allow_only(std::initializer_list<const char*> known) const;
    std::vector<std::pair<std::string, Json>> members() const;
    std::optional<Json> find(const std::string& key) const;
    Json at(const std::string& key) const;

    std::vector<Json> elements() const;

    std::string text() const;
    // `wanted` says what the place takes, for the complaint.
    Number number(const char* wanted) const;
    uint32_t u32() const;
    uint32_t float_bits() const;
    bool truth() const;
    bool is_null() const { return value_->is_null(); }

  private:
    const Value* value_;
    std::string file_;
    std::string path_;
};

// Reads a whole file.
Json::Value read_json(const std::string& file);

}  // namespace tool
