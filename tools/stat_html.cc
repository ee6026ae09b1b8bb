// The page of `stat --html`: style, pictures and figures in one file, for light and
// dark, wide and narrow screens.
#include <algorithm>

#include "inspect/escape.h"
#include "tools/quantities.h"
#include "tools/stat_output.h"

namespace Kestrun::Tools {
namespace {

constexpr char kStyle[] = R"css(
:root { color-scheme: light dark; --page: #fafaf8; --text: #1d2329; --soft: #5c6670; --line: #d9dde1; --card: #ffffff;
  --live: #2f7d5b; --over: #d98e2b; --gone: #b4483f; --old: #7a6bb0; --block: #3a6ea5; }
@media (max-width: 30rem) { td.meter { min-width: 2rem; } }
@media (prefers-color-scheme: dark) {
  :root { --page: #15191d; --text: #e6e9ec; --soft: #9aa5b0; --line: #333b43; --card: #1d2329;
    --live: #5bbf94; --over: #e9ad5c; --gone: #e07b71; --old: #a99ce0; --block: #6fa8e2; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 60rem; padding: 1.5rem 1rem 3rem; background: var(--page); color: var(--text);
  font: 16px/1.5 system-ui, sans-serif; }
h1 { font-size: 1.4rem; margin: 0; overflow-wrap: anywhere; }
h2 { font-size: 1.05rem; margin: 2rem 0 .6rem; }
p { margin: .3rem 0; }
.advice { margin-top: 1rem; }
.soft { color: var(--soft); }
.cards { display: grid; grid-template-columns: repeat(auto-fit, minmax(9rem, 1fr)); gap: .75rem; margin-top: 1rem; }
.card { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; padding: .7rem .9rem; }
.card b { display: block; font-size: 1.25rem; }
.bar { display: flex; height: 1.6rem; border-radius: .4rem; overflow: hidden; background: var(--line); }
.bar i { display: block; min-width: 1px; }
.live { background: var(--live); } .over { background: var(--over); } .gone { background: var(--gone); }
.old { background: var(--old); } .blockfill { background: var(--block); }
.key { display: flex; flex-wrap: wrap; gap: .3rem 1.2rem; margin-top: .5rem; font-size: .9rem; }
.key i { display: inline-block; width: .8rem; height: .8rem; border-radius: .2rem; margin-right: .4rem; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; width: 100%; font-size: .9rem; }
th, td { text-align: right; padding: .3rem .6rem; border-bottom: 1px solid var(--line); white-space: nowrap; }
th:first-child, td:first-child { text-align: left; white-space: normal; overflow-wrap: anywhere; min-width: 9rem; }
td.meter { min-width: 6rem; width: 30%; }
td.meter i { display: block; height: .7rem; border-radius: .2rem; min-width: 2px; }
svg { width: 100%; height: auto; background: var(--card); border: 1px solid var(--line); border-radius: .5rem; }
.ends { display: flex; justify-content: space-between; gap: 1rem; font-size: .85rem; overflow-wrap: anywhere; }
code { font-family: ui-monospace, monospace; }
.damage { color: var(--gone); font-weight: 600; }
)css";

std::string Escaped(const std::string& bytes) {
  std::string text;
  for (const char letter : Inspect::Printable(bytes)) {
    switch (letter) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      default:
        text += letter;
    }
  }
  return text;
}

std::string Percent(uint64_t part, uint64_t whole) {
  if (whole == 0) return "0";
  const uint64_t tenths = part * 1000 / whole;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

void AddCard(const std::string& title, const std::string& figure, const std::string& more,
             std::string* page) {
  *page += "<div class=\"card\"><span class=\"soft\">" + title + "</span><b>" + figure +
           "</b><span class=\"soft\">" + more + "</span></div>\n";
}

std::string Age(uint64_t now, uint64_t then) {
  const uint64_t seconds = now > then ? now - then : 0;
  if (seconds < 120) return std::to_string(seconds) + " s";
  if (seconds < 7200) return std::to_string(seconds / 60) + " min";
  if (seconds < 172800) return std::to_string(seconds / 3600) + " h";
  return std::to_string(seconds / 86400) + " days";
}

class Page {
 public:
  explicit Page(const StatReport& report) : report_(report), space_(report.space) {}

  std::string Make() {
    text_ =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<link rel=\"icon\" href=\"data:,\">\n<title>" +
        Escaped(report_.store) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n";
    Head();
    Bytes();
    Log();
    Sizes("By type", report_.files.recordTypes == 0 ? std::vector<Inspect::NamedSize>() : space_.types,
          "(no record)");
    Sizes("By prefix", space_.prefixes, "(none)");
    Ranges();
    Blocks();
    text_ += "</body>\n</html>\n";
    return text_;
  }

 private:
  uint64_t All() const { return space_.live.bytes + space_.Reclaimable(); }

  void Head() {
    text_ += "<h1>" + Escaped(report_.store) + "</h1>\n<p class=\"soft\">looked at " +
             Inspect::UtcTime(report_.now) + "</p>\n<div class=\"cards\">\n";
    AddCard("Files", SizeText(report_.files.totalBytes), Grouped(report_.files.totalBytes) + " bytes",
            &text_);
    AddCard("Live entries", Grouped(space_.live.count), SizeText(space_.live.bytes), &text_);
    AddCard("Blocks", Grouped(report_.files.ListedBlocks()), SizeText(report_.files.ListedBlockBytes()),
            &text_);
    AddCard("Given back by compacting", SizeText(space_.Reclaimable()),
            Percent(space_.Reclaimable(), All()) + "%", &text_);
    text_ += "</div>\n<p class=\"advice\">" + Escaped(CompactionAdvice(report_)) + ".</p>\n";
    if (space_.unreadable != 0 || space_.mayLackMore) {
      text_ += "<p class=\"damage\">Entries that can't be read: " +
               AmountText(space_.unreadable, space_.mayLackMore) + "</p>\n";
    }
  }

  void Bytes() {
    const struct {
      const char* name;
      const char* style;
      const Inspect::CountAndBytes& size;
    } rows[] = {{"live", "live", space_.live},
                {"overwritten", "over", space_.overwritten},
                {"deleted", "gone", space_.deleted},
                {"expired", "old", space_.expired}};
    text_ += "<h2>Keys and values</h2>\n<div class=\"bar\" role=\"img\" aria-label=\"bytes by state\">";
    for (const auto& row : rows) {
      if (row.size.bytes == 0) continue;
      text_ += std::string("<i class=\"") + row.style + "\" style=\"width:" + Percent(row.size.bytes, All()) +
               "%\"></i>";
    }
    text_ += "</div>\n<div class=\"key\">";
    for (const auto& row : rows) {
      text_ += std::string("<span><i class=\"") + row.style + "\"></i>" + row.name + ": " +
               Grouped(row.size.count) + ", " + SizeText(row.size.bytes) + "</span>";
    }
    text_ += "</div>\n";
  }

  void Log() {
    const Inspect::LogStat& log = report_.files.log;
    text_ += "<h2>Log</h2>\n";
    if (!log.present) {
      text_ += "<p class=\"damage\">missing</p>\n";
      return;
    }
    text_ +=
        "<div class=\"bar\" role=\"img\" aria-label=\"fill of the log\"><i class=\"blockfill\" "
        "style=\"width:" +
        Percent(std::min(log.used, log.fileSize), log.fileSize) + "%\"></i></div>\n<p class=\"soft\">" +
        SizeText(log.used) + " of " + SizeText(log.fileSize) + " used, " +
        Counted(log.counts.entries, "record", "records") + "</p>\n";
    if (!log.damage.empty()) text_ += "<p class=\"damage\">" + Escaped(log.damage) + "</p>\n";
  }

  void Sizes(const char* title, const std::vector<Inspect::NamedSize>& sizes, const char* unnamed) {
    if (sizes.empty()) return;
    uint64_t most = 1;
    for (const Inspect::NamedSize& size : sizes) most = std::max(most, size.size.bytes);
    text_ += std::string("<h2>") + title +
             "</h2>\n<div "
             "class=\"scroll\"><table>\n<tr><th>name</th><th>entries</th><th>bytes</th><th></th></tr>\n";
    for (const Inspect::NamedSize& size : sizes) {
      text_ += "<tr><td><code>" + (size.name.empty() ? std::string(unnamed) : Escaped(size.name)) +
               "</code></td><td>" + Grouped(size.size.count) + "</td><td>" + SizeText(size.size.bytes) +
               "</td><td class=\"meter\"><i class=\"live\" style=\"width:" + Percent(size.size.bytes, most) +
               "%\"></i></td></tr>\n";
    }
    text_ += "</table></div>\n";
  }

  // Where the keys of each block lie between the first and the last of all: bars above each other overlap.
  void Ranges() {
    std::vector<std::string> edges;
    for (const Inspect::BlockSpace& block : space_.blocks) {
      if (block.lastKey.empty()) continue;
      edges.push_back(block.firstKey);
      edges.push_back(block.lastKey);
    }
    if (edges.empty()) return;
    std::sort(edges.begin(), edges.end());
    edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
    constexpr size_t kMaxShown = 200;
    const size_t shown = std::min(kMaxShown, space_.blocks.size());
    const size_t rowHeight = 14;
    const size_t height = shown * rowHeight + 12;
    text_ += "<h2>Ranges of keys, oldest block first</h2>\n<svg viewBox=\"0 0 800 " + std::to_string(height) +
             "\" role=\"img\" aria-label=\"ranges of keys of the blocks\">\n";
    const auto place = [&edges](const std::string& key) {
      const auto at = static_cast<size_t>(std::lower_bound(edges.begin(), edges.end(), key) - edges.begin());
      return 10 + (edges.size() == 1 ? 0 : at * 780 / (edges.size() - 1));
    };
    for (size_t i = 0; i < shown; ++i) {
      const Inspect::BlockSpace& block = space_.blocks[i];
      if (block.lastKey.empty()) continue;
      const size_t left = place(block.firstKey);
      const size_t width = std::max<size_t>(3, place(block.lastKey) - left);
      text_ += "<rect x=\"" + std::to_string(left) + "\" y=\"" + std::to_string(8 + i * rowHeight) +
               "\" width=\"" + std::to_string(width) +
               "\" height=\"10\" rx=\"3\" fill=\"var(--block)\"><title>" + Escaped(block.name) + "\n" +
               Escaped(block.firstKey) + " to " + Escaped(block.lastKey) + "</title></rect>\n";
    }
    text_ += "</svg>\n<div class=\"ends soft\"><code>" + Escaped(edges.front().substr(0, 40)) +
             "</code><code>" + Escaped(edges.back().substr(0, 40)) + "</code></div>\n";
    if (shown < space_.blocks.size()) {
      text_ += "<p class=\"soft\">the first " + std::to_string(shown) + " of " +
               std::to_string(space_.blocks.size()) + " blocks</p>\n";
    }
  }

  void Blocks() {
    if (report_.files.blocks.empty()) return;
    text_ +=
        "<h2>Blocks</h2>\n<div "
        "class=\"scroll\"><table>\n<tr><th>name</th><th>age</th><th>entries</th><th>hidden</th>"
        "<th>tombstones</th><th>size</th><th>filter</th><th>overlaps</th></tr>\n";
    constexpr size_t kMaxShown = 1000;
    size_t shown = 0;
    for (const Inspect::BlockStat& block : report_.files.blocks) {
      if (++shown > kMaxShown) break;
      const auto found =
          std::find_if(space_.blocks.begin(), space_.blocks.end(),
                       [&](const Inspect::BlockSpace& space) { return space.name == block.name; });
      const bool known = found != space_.blocks.end() && !found->lastKey.empty();
      text_ += "<tr><td><code>" + Escaped(block.name) + "</code>";
      if (!block.damage.empty()) text_ += " <span class=\"damage\">" + Escaped(block.damage) + "</span>";
      if (!block.listed) text_ += " <span class=\"soft\">not in the manifest</span>";
      text_ += "</td><td>" +
               (block.counts.entries == 0 ? std::string("-") : Age(report_.now, block.counts.newest)) +
               "</td><td>" + Grouped(block.counts.entries) + "</td><td>" +
               (known ? Grouped(found->hidden) : "-") + "</td><td>" + Grouped(block.counts.deletions) +
               "</td><td>" + SizeText(block.fileSize) + "</td><td>" + SizeText(block.filterBytes) +
               "</td><td>" + (known ? std::to_string(found->overlaps) : "-") + "</td></tr>\n";
    }
    text_ += "</table></div>\n";
  }

  const StatReport& report_;
  const Inspect::SpaceStat& space_;
  std::string text_;
};

}  // namespace

std::string StatPage(const StatReport& report) {
  return Page(report).Make();
}

}  // namespace Kestrun::Tools
