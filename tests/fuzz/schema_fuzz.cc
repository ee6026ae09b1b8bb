// The schema file meta_v5: any bytes.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "kestrun/status.h"
#include "record/schema.h"
#include "tests/fuzz/fuzz_check.h"

namespace {

using Kestrun::RecordMeta;
using Kestrun::Schema;
using Kestrun::Testing::FuzzCheck;

constexpr char kNewText[] = "Fuzz new:%i4";

// One file for all inputs: the library keeps a record of each file that it ever saw.
class SchemaFile {
 public:
  SchemaFile() {
    std::string directory =
        access("/dev/shm", W_OK) == 0 ? "/dev/shm/kestrun-fuzz-XXXXXX" : "/tmp/kestrun-fuzz-XXXXXX";
    FuzzCheck(mkdtemp(directory.data()) != nullptr, "there is a place for the file");
    directory_ = directory;
  }
  ~SchemaFile() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::string Path() const { return directory_ + "/meta_v5"; }

  void Write(const std::string& content) const {
    std::ofstream file(Path(), std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
  }
  std::string Read() const {
    std::ifstream file(Path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  std::unique_ptr<Schema> Open() const {
    Schema* schema = nullptr;
    FuzzCheck(Schema::Open(Path(), &schema) == Kestrun::kStatusOk, "any file can be opened");
    return std::unique_ptr<Schema>(schema);
  }

 private:
  std::string directory_;
};

// What the file says, read without the library's reader.
struct Expected {
  explicit Expected(const std::string& content) {
    size_t start = 0;
    for (size_t end = 0; end < content.size(); ++end) {
      if (content[end] != '\n' && content[end] != '\0') continue;
      Enter(content.substr(start, end - start));
      start = end + 1;
    }
  }

  void Enter(const std::string& line) {
    const size_t hash = line.find('#');
    if (hash == std::string::npos || hash + 1 == line.size()) return;
    const std::string text = line.substr(hash + 1, line.find('#', hash + 1) - hash - 1);
    const size_t blank = text.find(' ');
    if (blank == std::string::npos || blank + 1 == text.size()) return;
    textOf[static_cast<uint16_t>(std::strtol(line.c_str(), nullptr, 10))] = text;
    texts.insert(text);
  }

  std::map<uint16_t, std::string> textOf;
  std::set<std::string> texts;
};

void CheckTypes(Schema& schema, const Expected& expected) {
  for (const auto& [id, text] : expected.textOf) {
    const RecordMeta* meta = schema.FindRecordMeta(id);
    FuzzCheck(meta != nullptr && meta->id == id && meta->text == text, "every number leads to its last text");
  }
  for (const std::string& text : expected.texts) {
    const RecordMeta* meta = schema.GetOrCreateRecordMeta(text);
    FuzzCheck(meta != nullptr && meta->text == text, "every text is known");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const SchemaFile file;
  const std::string content(reinterpret_cast<const char*>(data), size);
  const Expected expected(content);
  file.Write(content);
  const std::unique_ptr<Schema> schema = file.Open();
  CheckTypes(*schema, expected);
  FuzzCheck(schema->FindRecordMeta(12345) != nullptr || expected.textOf.count(12345) == 0,
            "a number without a line has no type");
  FuzzCheck(file.Read() == content, "reading changes nothing");
  if (expected.texts.count(kNewText) != 0) return 0;

  const RecordMeta* made = schema->GetOrCreateRecordMeta(kNewText);
  const std::string number = std::to_string(expected.texts.size() + 1);
  FuzzCheck(made != nullptr && std::to_string(made->id) == number, "types are numbered by count");
  FuzzCheck(file.Read() == content + number + "#" + kNewText + "\n", "a new type is one more line");
  const std::unique_ptr<Schema> again = file.Open();
  CheckTypes(*again, Expected(file.Read()));
  return 0;
}
