#include "inspect/schema_file.h"

#include <algorithm>
#include <cstdlib>

namespace Kestrun::Inspect {
namespace {

constexpr uint64_t kPiece = 4096;

// As the store reads a line: "id#text", the id through atoi and cut to 16 bits, the text up to a second '#'
// and usable when something follows its first blank.
void Interpret(SchemaLineView* view) {
  const std::string& line = view->line;
  const size_t mark = line.find('#');
  if (mark == std::string::npos || mark + 1 == line.size()) return;
  const size_t second = line.find('#', mark + 1);
  const std::string idText = line.substr(0, mark);
  view->text = line.substr(mark + 1, second == std::string::npos ? second : second - mark - 1);
  view->textIsCut = second != std::string::npos;

  const long number = std::strtol(idText.c_str(), nullptr, 10);
  view->id = static_cast<uint16_t>(static_cast<unsigned long>(number) & 0xFFFF);
  view->idIsPlain = idText == std::to_string(view->id);
  const size_t blank = view->text.find(' ');
  view->isRecordType = view->ended && blank != std::string::npos && blank + 1 < view->text.size();
}

}  // namespace

bool ScanSchema(const ReadOnlyFile& file, const std::function<bool(const SchemaLineView&)>& visit) {
  FileWindow window(file);
  SchemaLineView view;
  const auto deliver = [&view, &visit](bool ended, bool byNul) {
    view.ended = ended;
    view.endedByNul = byNul;
    Interpret(&view);
    const bool more = visit(view);
    const uint64_t next = view.offset + view.size + 1;
    view = SchemaLineView();
    view.offset = next;
    return more;
  };

  std::string piece;
  for (uint64_t offset = 0; offset < file.Size(); offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min(kPiece, file.Size() - offset)));
    if (!window.ReadAt(offset, piece.data(), piece.size())) return false;
    for (const char byte : piece) {
      if (byte != '\n' && byte != '\0') {
        if (++view.size <= kMaxSchemaLine) {
          view.line += byte;
        } else {
          view.line.clear();
        }
      } else if (view.size == 0) {
        ++view.offset;
      } else if (!deliver(true, byte == '\0')) {
        return true;
      }
    }
  }
  if (view.size > 0) deliver(false, false);
  return true;
}

}  // namespace Kestrun::Inspect
