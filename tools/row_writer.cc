#include "tools/row_writer.h"

#include "inspect/escape.h"
#include "kestrun/data_entry.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

// Text goes on in pieces, so that a sink is not called for each row.
class TextWriter : public RowWriter {
 public:
  TextWriter(const RowWriterOptions& options, TextSink sink) : options_(options), sink_(std::move(sink)) {}

 protected:
  void PassOn(bool all) {
    constexpr size_t kPiece = 64 << 10;
    if (!all && text_.size() < kPiece) return;
    sink_(text_);
    text_.clear();
  }

  RowWriterOptions options_;
  std::string text_;

 private:
  TextSink sink_;
};

class TableWriter final : public TextWriter {
 public:
  TableWriter(const RowWriterOptions& options, TextSink sink) : TextWriter(options, std::move(sink)) {
    if (options.format == RowFormat::Tsv) options_.delimiter = '\t';
    special_[static_cast<unsigned char>(options_.delimiter)] = true;
    for (const char letter : {'"', '\r', '\n'}) special_[static_cast<unsigned char>(letter)] = true;
    AddField(options_.keyColumn);
    if (options.type != nullptr) {
      for (const Field* field : options.type->fields) Next(field->name);
    } else {
      Next("value");
    }
    if (options.withEntry) {
      Next("written");
      Next("ttl");
    }
    EndRow();
  }

  void Add(const ExportedEntry& entry) override {
    AddBytes(entry.key, "key", entry.key);
    if (entry.type != nullptr) {
      for (const FieldView& field : *entry.fields) {
        text_ += options_.delimiter;
        if (field.type == ValueType::String) {
          AddField(field.bytes);
        } else {
          // Numbers and hexadecimal digits need no quotes.
          AppendFieldText(field, &text_);
        }
      }
    } else {
      text_ += options_.delimiter;
      AddBytes(entry.value, "value", entry.key);
    }
    if (options_.withEntry) {
      text_ += options_.delimiter;
      text_ += std::to_string(entry.written);
      text_ += options_.delimiter;
      text_ += entry.ttl == kTtlForever ? std::string("forever") : std::to_string(entry.ttl);
    }
    EndRow();
  }

  void Finish() override { PassOn(true); }

 private:
  void Next(std::string_view field) {
    text_ += options_.delimiter;
    AddField(field);
  }

  void EndRow() {
    // A row of one empty field would be an empty line.
    text_ += '\n';
    PassOn(false);
  }

  // Keys and raw values.
  void AddBytes(std::string_view bytes, const char* what, std::string_view key) {
    if (options_.hex) {
      text_ += Inspect::Hex(bytes);
    } else if (options_.type == nullptr && !Inspect::IsUtf8(bytes)) {
      throw UsageError(std::string("the ") + what + " of \"" + Inspect::Printable(key) +
                       "\" is not UTF-8, which " + FormatName(options_.format) +
                       " can't hold; give --hex, or --format jsonl");
    } else {
      AddField(bytes);
    }
  }

  void AddField(std::string_view field) {
    if (options_.format == RowFormat::Tsv) {
      AddEscaped(field);
      return;
    }
    bool quoted = false;
    for (const char letter : field) quoted = quoted || special_[static_cast<unsigned char>(letter)];
    if (!quoted) {
      text_ += field;
      return;
    }
    text_ += '"';
    for (const char letter : field) {
      if (letter == '"') text_ += '"';
      text_ += letter;
    }
    text_ += '"';
  }

  void AddEscaped(std::string_view field) {
    for (const char letter : field) {
      switch (letter) {
        case '\t':
          text_ += "\\t";
          break;
        case '\n':
          text_ += "\\n";
          break;
        case '\r':
          text_ += "\\r";
          break;
        case '\\':
          text_ += "\\\\";
          break;
        default:
          text_ += letter;
      }
    }
  }

  bool special_[256] = {};
};

class JsonRowWriter final : public TextWriter {
 public:
  JsonRowWriter(const RowWriterOptions& options, TextSink sink)
      : TextWriter(options, std::move(sink)), json_(options.hex) {
    if (options_.format == RowFormat::Json) text_ += '[';
  }

  void Add(const ExportedEntry& entry) override {
    json_.Clear();
    json_.BeginObject().Name(options_.keyColumn).Bytes(entry.key);
    if (options_.namesTypes) {
      json_.Name("type");
      if (entry.type != nullptr) {
        json_.Text(entry.type->text);
      } else {
        json_.Null();
      }
    }
    if (entry.type != nullptr) {
      for (size_t i = 0; i < entry.fields->size(); ++i) {
        AddFieldJson((*entry.fields)[i], &json_.Name(entry.type->fields[i]->name));
      }
    } else {
      json_.Name("value").Bytes(entry.value);
    }
    if (options_.withEntry) {
      json_.Name("written").Number(entry.written).Name("ttl");
      if (entry.ttl == kTtlForever) {
        json_.Text("forever");
      } else {
        json_.Number(entry.ttl);
      }
    }
    json_.EndObject();
    if (options_.format == RowFormat::Json) text_ += first_ ? "\n" : ",\n";
    first_ = false;
    text_ += json_.Result();
    if (options_.format == RowFormat::JsonLines) text_ += '\n';
    PassOn(false);
  }

  void Finish() override {
    if (options_.format == RowFormat::Json) text_ += first_ ? "]\n" : "\n]\n";
    PassOn(true);
  }

 private:
  JsonWriter json_;
  bool first_ = true;
};

}  // namespace

std::unique_ptr<RowWriter> MakeTextWriter(const RowWriterOptions& options, TextSink sink) {
  if (options.format == RowFormat::Csv || options.format == RowFormat::Tsv) {
    return std::make_unique<TableWriter>(options, std::move(sink));
  }
  return std::make_unique<JsonRowWriter>(options, std::move(sink));
}

}  // namespace Kestrun::Tools
