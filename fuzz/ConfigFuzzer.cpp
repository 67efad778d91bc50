// Differential: arbitrary UTF-16 text as the host's configuration, decoded by the add-on and by
// jsoncons (JsonconsConfig.h). Both must give the same flag, or both refuse the text: with a parse
// error each, or with the same conversion message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "KestrelLib/JsonReader.h"
#include "KestrelLib/KestrelConfig.h"
#include "fuzz/JsonconsConfig.h"

namespace {

std::string Shipped(const std::wstring& text) {
  try {
    return tessel::DecodeKestrelConfig(text).flags.hookHeapAllocator ? "true" : "false";
  } catch (const tessel::JsonSyntaxError&) {
    return "parse error";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Two bytes per code unit, as the host's UTF-16 text arrives on Windows.
  std::u16string text;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    text += static_cast<char16_t>(data[i] | (data[i + 1] << 8));
  }
  if (Shipped(std::wstring(text.begin(), text.end())) != reference::Decode(text)) {
    std::abort();
  }
  return 0;
}
