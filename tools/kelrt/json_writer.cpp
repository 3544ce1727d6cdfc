// Commas, brackets and line breaks: members of the outermost two levels each begin a line.
#include "json_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "bad_input.h"
#include "output_files.h"

namespace tool {

void JsonWriter::separate() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_)
        out_ += ',';
    if (!open_.empty())
        out_ += open_.size() <= 2 ? "\n" : first_ ? "" : " ";
    first_ = false;
}

JsonWriter& JsonWriter::begin(char bracket) {
    separate();
    out_ += bracket;
    open_ += bracket == '{' ? '}' : ']';
    first_ = true;
    return *this;
}

JsonWriter& JsonWriter::end() {
    if (open_.size() <= 2 && !first_)
        out_ += '\n';
    out_ += open_.back();
    open_.pop_back();
    first_ = false;
    if (open_.empty())
        out_ += '\n';
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    text(name);
    out_ += ": ";
    after_key_ = true;
    return *this;
}

JsonWriter& JsonWriter::text(std::string_view text) {
    separate();
    out_ += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return *this;
}

JsonWriter& JsonWriter::number(uint64_t number) {
    separate();
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::real(double number) {
    if (!std::isfinite(number))
        return text(std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf");
    separate();
    char digits[32];
    const auto [end, error] =
        std::to_chars(digits, digits + sizeof digits, number, std::chars_format::general, 12);
    out_.append(digits, end);
    return *this;
}

JsonWriter& JsonWriter::truth(bool truth) {
    separate();
    out_ += truth ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    separate();
    out_ += "null";
    return *this;
}

namespace {

// A pipe, a device or a link, as /dev/stdout is one, which must stay what it is.
void write_into(const char* option, const std::string& file, const std::string& document) {
    std::FILE* const out = std::fopen(file.c_str(), "we");
    bool written = out && std::fwrite(document.data(), 1, document.size(), out) == document.size();
    written = (!out || std::fclose(out) == 0) && written;
    if (!written)
        throw BadInput(std::string(option) + " " + npy::with_reason(file + ": cannot write the file"));
}

}  // namespace

void write_document(const char* option, const std::string& file, const std::string& document) {
    const std::filesystem::path path(file);
    std::error_code unknown;
    using Kind = std::filesystem::file_type;
    const Kind kind = std::filesystem::symlink_status(path, unknown).type();
    if (kind != Kind::regular && kind != Kind::directory && kind != Kind::not_found && kind != Kind::none)
        return write_into(option, file, document);
    try {
        npy::OutputFiles files(path.has_parent_path() ? path.parent_path().string() : ".");
        files.add_file(path.filename().string(), {document});
        files.commit();
    } catch (const npy::Error& wrong) {
        throw BadInput(std::string(option) + " " + wrong.what());
    }
}

}  // namespace tool
