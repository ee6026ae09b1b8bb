#include "format/schema_reader.h"

#include <algorithm>
#include <cstdlib>

namespace Kestrun {
namespace {

void Interpret(SchemaLineView* view) {
  const std::string& line = view->line;
  const size_t mark = line.find('#');
  if (!view->ended || mark == std::string::npos || mark + 1 == line.size()) return;
  const size_t second = line.find('#', mark + 1);
  const std::string number = line.substr(0, mark);
  view->isEntry = true;
  view->text = line.substr(mark + 1, second == std::string::npos ? second : second - mark - 1);
  view->textIsCut = second != std::string::npos;
  view->id = static_cast<uint16_t>(std::strtol(number.c_str(), nullptr, 10));
  view->idIsPlain = number == std::to_string(view->id);
}

}  // namespace

bool SchemaLineView::IsRecordType() const {
  const size_t blank = text.find(' ');
  return isEntry && blank != std::string::npos && blank + 1 < text.size();
}

bool SchemaReader::Feed(const char* bytes, size_t size, const Visit& visit) {
  const char* const end = bytes + size;
  while (bytes != end) {
    const char* lineEnd = std::find_if(bytes, end, [](char c) { return c == '\n' || c == '\0'; });
    view_.size += static_cast<uint64_t>(lineEnd - bytes);
    if (view_.size <= maxLine_) {
      view_.line.append(bytes, lineEnd);
    } else {
      view_.line.clear();
    }
    if (lineEnd == end) return true;
    bytes = lineEnd + 1;
    if (!Deliver(true, *lineEnd == '\0', visit)) return false;
  }
  return true;
}

void SchemaReader::Finish(const Visit& visit) {
  Deliver(false, false, visit);
}

bool SchemaReader::Deliver(bool ended, bool byNul, const Visit& visit) {
  const uint64_t next = view_.offset + view_.size + 1;
  view_.ended = ended;
  view_.endedByNul = byNul;
  Interpret(&view_);
  const bool more = view_.size == 0 || visit(view_);
  view_ = SchemaLineView();
  view_.offset = next;
  return more;
}

std::string SchemaLine(uint64_t id, const std::string& text) {
  return std::to_string(id) + "#" + text + "\n";
}

}  // namespace Kestrun
