// The text of a record type: any bytes.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/record_meta.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using Kestrun::Testing::FuzzCheck;

void CheckSplit(const std::string& text, const std::string& separator, uint32_t limit) {
  std::vector<std::string> pieces;
  Kestrun::SplitString(text, pieces, separator, limit);
  FuzzCheck(limit == 0 || pieces.size() <= limit, "as many pieces as the limit allows");
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) joined += (i == 0 ? "" : separator) + pieces[i];
  FuzzCheck(joined == text || joined + separator == text, "pieces and separators are the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const uint32_t limit = size == 0 ? 0 : data[0] % 5U;
  for (const char* separator : {" ", ",", ":", "::", ""}) CheckSplit(text, separator, limit);

  const std::unique_ptr<Kestrun::RecordMeta> meta(Kestrun::RecordMeta::Create(7, text));
  const size_t blank = text.find(' ');
  FuzzCheck((meta != nullptr) == (blank != std::string::npos && blank + 1 < text.size()),
            "a record type is a name, a blank and something more");
  if (meta == nullptr) return 0;
  FuzzCheck(meta->id == 7 && meta->text == text && meta->name == text.substr(0, blank), "text and name stay");
  const auto commas = static_cast<size_t>(std::count(text.begin(), text.end(), ','));
  FuzzCheck(meta->fields.size() <= commas + 1, "no more fields than pieces");
  for (const Kestrun::Field* field : meta->fields) {
    FuzzCheck(field->name.find_first_of(",:") == std::string::npos, "separators are in no name");
    FuzzCheck(field->type <= Kestrun::ValueType::Binary, "types are known");
  }
  return 0;
}
