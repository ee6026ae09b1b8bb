#include "tools/dump_output.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <set>
#include <vector>

#include "format/manifest_reader.h"
#include "inspect/dump.h"
#include "inspect/escape.h"
#include "inspect/store_directory.h"
#include "kestrun/status.h"
#include "tools/failure.h"
#include "tools/json_writer.h"
#include "tools/progress.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kRow = 16;

std::string OffsetText(uint64_t offset) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "%08llx", static_cast<unsigned long long>(offset));
  return text.data();
}

std::string HexColumns(std::string_view bytes) {
  std::string text;
  for (size_t i = 0; i < kRow; ++i) {
    text += i == kRow / 2 ? "  " : " ";
    text += i < bytes.size() ? Inspect::Hex(bytes.substr(i, 1)) : "  ";
  }
  return text;
}

std::string Characters(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) text += byte >= 0x20 && byte < 0x7F ? byte : '.';
  text.resize(kRow, ' ');
  return text;
}

class TextSink : public Inspect::DumpSink {
 public:
  void Part(const std::string& title) override { WriteLine(title + ":"); }

  void Field(uint64_t offset, std::string_view bytes, const std::string& name,
             const std::string& meaning) override {
    for (size_t i = 0; i < bytes.size(); i += kRow) {
      const std::string_view row = bytes.substr(i, kRow);
      std::string line = OffsetText(offset + i) + " " + HexColumns(row) + "  |" + Characters(row) + "|";
      if (i == 0) line += "  " + name + (meaning.empty() ? "" : ": " + meaning);
      WriteLine(line);
    }
  }

  void Zeros(uint64_t offset, uint64_t size, const std::string& name) override {
    WriteLine(OffsetText(offset) + "  " + std::to_string(size) + " zero bytes  " + name);
  }
};

class JsonSink : public Inspect::DumpSink {
 public:
  explicit JsonSink(std::string file) : file_(std::move(file)) {}

  void Part(const std::string& title) override { part_ = title; }

  void Field(uint64_t offset, std::string_view bytes, const std::string& name,
             const std::string& meaning) override {
    JsonWriter json;
    Begin(offset, bytes.size(), name, &json);
    json.Name("hex").Text(Inspect::Hex(bytes));
    if (!meaning.empty()) json.Name("meaning").Bytes(meaning);
    WriteJsonLine(json.EndObject());
  }

  void Zeros(uint64_t offset, uint64_t size, const std::string& name) override {
    JsonWriter json;
    Begin(offset, size, name, &json);
    WriteJsonLine(json.Name("zeros").Bool(true).EndObject());
  }

 private:
  void Begin(uint64_t offset, uint64_t size, const std::string& name, JsonWriter* json) const {
    json->BeginObject().Name("file").Bytes(file_).Name("part").Bytes(part_).Name("field").Bytes(name);
    json->Name("offset").Number(offset).Name("size").Number(size);
  }

  std::string file_;
  std::string part_;
};

// Hands everything on, and tells how far it is where the data do not scroll by themselves.
class ToldSink : public Inspect::DumpSink {
 public:
  ToldSink(uint64_t size, Inspect::DumpSink* sink) : sink_(*sink) {
    if (!StandardOutputIsTerminal()) progress_.emplace("dumping", size, "bytes");
  }

  void Part(const std::string& title) override { sink_.Part(title); }
  void Field(uint64_t offset, std::string_view bytes, const std::string& name,
             const std::string& meaning) override {
    sink_.Field(offset, bytes, name, meaning);
    if (progress_) progress_->Update(offset, offset);
  }
  void Zeros(uint64_t offset, uint64_t size, const std::string& name) override {
    sink_.Zeros(offset, size, name);
  }

 private:
  Inspect::DumpSink& sink_;
  std::optional<Progress> progress_;
};

// The blocks that the manifest lists, oldest first, then the others.
std::vector<std::string> BlocksInOrder(const std::string& directory, const Inspect::StoreDirectory& files) {
  const std::set<std::string> present(files.blocks.begin(), files.blocks.end());
  std::vector<std::string> names;
  std::set<std::string> seen;
  std::string why;
  if (const auto manifest = Inspect::ReadOnlyFile::Open(Inspect::ManifestPath(directory), &why)) {
    Inspect::FileSource source(*manifest);
    ManifestReader reader(source, manifest->Size());
    while (reader.Next(true)) {
      const std::string& name = reader.Entry().name;
      if (present.count(name) != 0 && seen.insert(name).second) names.push_back(name);
    }
  }
  for (const std::string& name : files.blocks) {
    if (seen.count(name) == 0) names.push_back(name);
  }
  return names;
}

}  // namespace

void DumpOneFile(const std::string& path, uint64_t pageSize, bool json) {
  std::string why;
  const auto file = Inspect::ReadOnlyFile::Open(path, &why);
  if (!file)
    throw StoreFailure(kStatusOpenFailed, Inspect::Printable(path) + ": can't be read (" + why + ")");
  const Inspect::FileKind kind = Inspect::DetectFileKind(*file);
  bool whole = false;
  if (json) {
    JsonSink sink(path);
    ToldSink told(file->Size(), &sink);
    whole = Inspect::DumpFile(*file, kind, pageSize, &told);
  } else {
    WriteLine(Inspect::Printable(path) + ": " + Inspect::FileKindName(kind) + ", " +
              std::to_string(file->Size()) + " bytes");
    TextSink sink;
    ToldSink told(file->Size(), &sink);
    whole = Inspect::DumpFile(*file, kind, pageSize, &told);
  }
  if (!whole) throw StoreFailure(kStatusOpenFailed, Inspect::Printable(path) + ": can't be read to its end");
}

bool DumpStore(const std::string& directory, uint64_t pageSize, bool json, std::string* why) {
  const auto files = Inspect::ListStore(directory, why);
  if (!files) return false;
  if (!files->HoldsPartOfStore()) {
    *why = "the directory holds neither a log nor a manifest";
    return false;
  }
  std::vector<std::string> paths;
  if (files->hasLog) paths.push_back(Inspect::LogPath(directory));
  if (files->hasManifest) paths.push_back(Inspect::ManifestPath(directory));
  if (files->hasSchema) paths.push_back(Inspect::SchemaPath(directory));
  for (const std::string& name : BlocksInOrder(directory, *files)) {
    paths.push_back(Inspect::BlockPath(directory, name));
  }
  for (const std::string& path : paths) {
    if (!json && path != paths.front()) WriteLine("");
    DumpOneFile(path, pageSize, json);
  }
  return true;
}

}  // namespace Kestrun::Tools
