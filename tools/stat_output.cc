#include "tools/stat_output.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/json_writer.h"
#include "tools/quantities.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

using Inspect::BlockSpace;
using Inspect::BlockStat;
using Inspect::CountAndBytes;
using Inspect::EntryCounts;
using Inspect::Finding;
using Inspect::NamedSize;
using Inspect::Severity;
using Inspect::VerifyReport;

void AddCounts(const EntryCounts& counts, JsonWriter* json) {
  json->Name("entries").Number(counts.entries).Name("deletions").Number(counts.deletions);
  json->Name("expired").Number(counts.expired).Name("valueBytes").Number(counts.valueBytes);
  if (counts.entries == 0) return;
  json->Name("oldest").Number(counts.oldest).Name("newest").Number(counts.newest);
}

const BlockSpace* SpaceOf(const StatReport& report, const std::string& name) {
  const auto& blocks = report.space.blocks;
  const auto found =
      std::find_if(blocks.begin(), blocks.end(), [&](const BlockSpace& b) { return b.name == name; });
  return found == blocks.end() ? nullptr : &*found;
}

void AddBlock(const StatReport& report, const BlockStat& block, JsonWriter* json) {
  json->BeginObject().Name("name").Bytes(block.name).Name("listed").Bool(block.listed);
  json->Name("present").Bool(block.present);
  if (block.present) {
    json->Name("fileSize").Number(block.fileSize);
    AddCounts(block.counts, json);
  }
  if (block.listed) json->Name("filterBytes").Number(block.filterBytes);
  if (const BlockSpace* space = SpaceOf(report, block.name); space != nullptr && !space->lastKey.empty()) {
    json->Name("firstKey").Bytes(space->firstKey).Name("lastKey").Bytes(space->lastKey);
    json->Name("overlaps").Number(space->overlaps).Name("hidden").Number(space->hidden);
  }
  if (!block.damage.empty()) json->Name("damage").Bytes(block.damage);
  json->EndObject();
}

void AddSizes(const char* name, const std::vector<NamedSize>& sizes, JsonWriter* json) {
  json->Name(name).BeginArray();
  for (const NamedSize& size : sizes) {
    json->BeginObject().Name("name").Bytes(size.name).Name("entries").Number(size.size.count);
    json->Name("bytes").Number(size.size.bytes).EndObject();
  }
  json->EndArray();
}

std::string TimeOrNothing(const EntryCounts& counts, uint64_t time) {
  return counts.entries == 0 ? std::string("-") : Inspect::UtcTime(time);
}

std::string StateOf(const BlockStat& block) {
  if (!block.damage.empty()) return "damaged: " + Inspect::Printable(block.damage);
  return block.listed ? std::string() : "not in the manifest";
}

std::string Share(uint64_t part, uint64_t whole) {
  return whole == 0 ? std::string("0%") : std::to_string(part * 100 / whole) + "%";
}

void WriteSizes(const char* title, const std::vector<NamedSize>& sizes, const char* unnamed) {
  if (sizes.empty()) return;
  Table table({Align::Left, Align::Right, Align::Right});
  table.Add({title, "ENTRIES", "BYTES"});
  for (const NamedSize& size : sizes) {
    table.Add({size.name.empty() ? unnamed : Inspect::Printable(size.name), Grouped(size.size.count),
               Grouped(size.size.bytes)});
  }
  WriteLine("");
  table.Write();
}

void WriteBlocks(const StatReport& report) {
  if (report.files.blocks.empty()) return;
  Table table({Align::Left, Align::Right, Align::Right, Align::Right, Align::Right, Align::Right, Align::Left,
               Align::Left, Align::Left, Align::Left});
  table.Add({"BLOCK", "ENTRIES", "DELETIONS", "HIDDEN", "BYTES", "OVERLAPS", "OLDEST", "NEWEST", "KEYS", ""});
  for (const BlockStat& block : report.files.blocks) {
    const BlockSpace* space = SpaceOf(report, block.name);
    const bool ranged = space != nullptr && !space->lastKey.empty();
    constexpr size_t kShown = 20;
    table.Add({Inspect::Printable(block.name), Grouped(block.counts.entries), Grouped(block.counts.deletions),
               ranged ? Grouped(space->hidden) : "-", Grouped(block.fileSize),
               ranged ? std::to_string(space->overlaps) : "-",
               TimeOrNothing(block.counts, block.counts.oldest),
               TimeOrNothing(block.counts, block.counts.newest),
               ranged ? Inspect::Printable(space->firstKey.substr(0, kShown)) + " to " +
                            Inspect::Printable(space->lastKey.substr(0, kShown))
                      : "-",
               StateOf(block)});
  }
  WriteLine("");
  table.Write();
}

}  // namespace

std::string CompactionAdvice(const StatReport& report) {
  const uint64_t all = report.space.live.bytes + report.space.Reclaimable();
  const uint64_t blocks = report.files.ListedBlocks();
  if (report.space.unreadable != 0 || report.space.mayLackMore)
    return "something is damaged: see 'kestrun verify', and recover before anything else";
  if (blocks == 0) return "there is nothing to compact";
  if (report.space.Reclaimable() * 5 >= all && all != 0) {
    return "compacting pays: it gives back about " + SizeText(report.space.Reclaimable());
  }
  if (blocks >= 8)
    return "compacting pays for reads: " + Counted(blocks, "block becomes", "blocks become") + " one";
  return "compacting would give back little";
}

void WriteStatJson(const StatReport& report) {
  JsonWriter json;
  const Inspect::LogStat& log = report.files.log;
  json.BeginObject()
      .Name("store")
      .Bytes(report.store)
      .Name("log")
      .BeginObject()
      .Name("present")
      .Bool(log.present);
  if (log.present) {
    json.Name("fileSize").Number(log.fileSize).Name("used").Number(log.used);
    AddCounts(log.counts, &json);
  }
  if (!log.damage.empty()) json.Name("damage").Bytes(log.damage);
  json.EndObject().Name("manifest").BeginObject().Name("present").Bool(report.files.manifestPresent);
  if (report.files.manifestPresent) json.Name("generation").Number(report.files.generation);
  if (!report.files.manifestDamage.empty()) json.Name("damage").Bytes(report.files.manifestDamage);
  json.EndObject().Name("blocks").BeginArray();
  for (const BlockStat& block : report.files.blocks) AddBlock(report, block, &json);
  json.EndArray().Name("recordTypes").Number(report.files.recordTypes);
  json.Name("totalBytes").Number(report.files.totalBytes);

  const Inspect::SpaceStat& space = report.space;
  json.Name("entries").BeginObject().Name("live").Number(space.live.count);
  json.Name("overwritten").Number(space.overwritten.count).Name("deleted").Number(space.deleted.count);
  json.Name("expired").Number(space.expired.count).EndObject();
  json.Name("bytes").BeginObject().Name("live").Number(space.live.bytes);
  json.Name("overwritten").Number(space.overwritten.bytes).Name("deleted").Number(space.deleted.bytes);
  json.Name("expired").Number(space.expired.bytes).EndObject();
  json.Name("unreadable").Number(space.unreadable).Name("unreadableIsExact").Bool(!space.mayLackMore);
  AddSizes("types", space.types, &json);
  AddSizes("prefixes", space.prefixes, &json);
  json.Name("advice").Text(CompactionAdvice(report));
  WriteJsonLine(json.EndObject());
}

void WriteStatText(const StatReport& report) {
  const Inspect::LogStat& log = report.files.log;
  Table summary({Align::Left, Align::Left});
  summary.Add({"store", Inspect::Printable(report.store)});
  summary.Add({"bytes", Grouped(report.files.totalBytes) + " (" + SizeText(report.files.totalBytes) + ")"});
  summary.Add({"log", !log.present ? "missing"
                                   : Grouped(log.used) + " of " + Grouped(log.fileSize) + " bytes used, " +
                                         Counted(log.counts.entries, "record", "records") + " (" +
                                         Counted(log.counts.deletions, "deletion", "deletions") + ", " +
                                         std::to_string(log.counts.expired) + " expired)"});
  if (log.counts.entries != 0) {
    summary.Add({"", Inspect::UtcTime(log.counts.oldest) + " to " + Inspect::UtcTime(log.counts.newest)});
  }
  if (log.present && !log.damage.empty()) summary.Add({"", "damaged: " + log.damage});
  summary.Add({"manifest", !report.files.manifestPresent
                               ? "missing"
                               : "generation " + std::to_string(report.files.generation)});
  if (report.files.manifestPresent && !report.files.manifestDamage.empty()) {
    summary.Add({"", "damaged: " + report.files.manifestDamage});
  }
  summary.Add({"blocks", Counted(report.files.ListedBlocks(), "block, ", "blocks, ") +
                             Grouped(report.files.ListedBlockBytes()) + " bytes"});
  summary.Add({"record types", std::to_string(report.files.recordTypes)});
  summary.Write();

  const Inspect::SpaceStat& space = report.space;
  const uint64_t all = space.live.bytes + space.Reclaimable();
  Table entries({Align::Left, Align::Right, Align::Right, Align::Right});
  entries.Add({"ENTRIES", "COUNT", "BYTES", "SHARE"});
  const struct {
    const char* name;
    const CountAndBytes& size;
  } rows[] = {{"live", space.live},
              {"overwritten", space.overwritten},
              {"deleted", space.deleted},
              {"expired", space.expired}};
  for (const auto& row : rows) {
    entries.Add({row.name, Grouped(row.size.count), Grouped(row.size.bytes), Share(row.size.bytes, all)});
  }
  WriteLine("");
  entries.Write();
  if (space.unreadable != 0 || space.mayLackMore) {
    WriteLine("entries that can't be read: " + AmountText(space.unreadable, space.mayLackMore));
  }
  if (report.files.recordTypes != 0) WriteSizes("TYPE", space.types, "(no record)");
  WriteSizes("PREFIX", space.prefixes, "(none)");
  WriteBlocks(report);
  WriteLine("");
  WriteLine(CompactionAdvice(report));
}

void WriteVerifyJson(const VerifyReport& report) {
  JsonWriter json;
  json.BeginObject().Name("sound").Bool(report.Sound()).Name("damages").Number(report.damages);
  json.Name("notes").Number(report.notes).Name("logRecords").Number(report.logRecords);
  json.Name("blocks").Number(report.blocks).Name("blockEntries").Number(report.blockEntries);
  json.Name("recordTypes").Number(report.recordTypes).Name("findings").BeginArray();
  for (const Finding& finding : report.findings) {
    json.BeginObject().Name("severity").Text(finding.severity == Severity::Damage ? "damage" : "note");
    json.Name("file")
        .Bytes(finding.file)
        .Name("offset")
        .Number(finding.offset)
        .Name("text")
        .Bytes(finding.text);
    json.EndObject();
  }
  WriteJsonLine(json.EndArray().EndObject());
}

void WriteVerifyText(const VerifyReport& report) {
  for (const Finding& finding : report.findings) {
    WriteLine(std::string(finding.severity == Severity::Damage ? "damage  " : "note    ") + finding.file +
              " at " + std::to_string(finding.offset) + ": " + finding.text);
  }
  const uint64_t all = report.damages + report.notes;
  if (all > report.findings.size())
    WriteLine("and " + std::to_string(all - report.findings.size()) + " more");
  WriteLine((report.Sound() ? std::string("sound") : Counted(report.damages, "damage", "damages")) +
            ": looked at " + Counted(report.logRecords, "record", "records") + " in the log, " +
            Counted(report.blocks, "block", "blocks") + " with " +
            Counted(report.blockEntries, "entry", "entries") + ", " +
            Counted(report.recordTypes, "record type", "record types"));
}

}  // namespace Kestrun::Tools
