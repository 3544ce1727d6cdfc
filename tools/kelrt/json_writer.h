// JSON that is put together in order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// begin('{') or begin('['), members, end(); in an object a key stands before each value.
class JsonWriter {
  public:
    JsonWriter& begin(char bracket);
    JsonWriter& end();
    JsonWriter& key(std::string_view name);

    // Bytes that are no UTF-8 become U+FFFD.
    JsonWriter& text(std::string_view text);
    JsonWriter& number(uint64_t number);
    // A number with few digits; what is not finite is a text.
    JsonWriter& real(double number);
    JsonWriter& truth(bool truth);
    JsonWriter& null();

    const std::string& document() const { return out_; }

  private:
    void separate();

    std::string out_;
    std::string open_;  // the brackets that will close
    bool first_ = true, after_key_ = false;
};

// Writes a finished document, as a whole or not at all; throws BadInput, which names the option.
void write_document(const char* option, const std::string& file, const std::string& document);

}  // namespace tool
