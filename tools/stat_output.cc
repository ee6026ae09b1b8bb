#include "tools/stat_output.h"

#include "inspect/escape.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

using Inspect::BlockStat;
using Inspect::EntryCounts;
using Inspect::Finding;
using Inspect::Severity;
using Inspect::StoreStat;
using Inspect::VerifyReport;

std::string Counted(uint64_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

void AddCounts(const EntryCounts& counts, Json* json) {
  (*json)["entries"] = counts.entries;
  (*json)["deletions"] = counts.deletions;
  (*json)["expired"] = counts.expired;
  (*json)["valueBytes"] = counts.valueBytes;
  if (counts.entries == 0) return;
  (*json)["oldest"] = counts.oldest;
  (*json)["newest"] = counts.newest;
}

Json JsonOfLog(const Inspect::LogStat& log) {
  Json json = {{"present", log.present}};
  if (log.present) {
    json["fileSize"] = log.fileSize;
    json["used"] = log.used;
    AddCounts(log.counts, &json);
  }
  if (!log.damage.empty()) json["damage"] = log.damage;
  return json;
}

Json JsonOfBlock(const BlockStat& block) {
  Json json = {{"name", JsonOfBytes(block.name)}, {"listed", block.listed}, {"present", block.present}};
  if (block.present) {
    json["fileSize"] = block.fileSize;
    AddCounts(block.counts, &json);
  }
  if (!block.damage.empty()) json["damage"] = block.damage;
  return json;
}

std::string TimeOrNothing(const EntryCounts& counts, uint64_t time) {
  return counts.entries == 0 ? std::string("-") : Inspect::UtcTime(time);
}

std::string StateOf(const BlockStat& block) {
  if (!block.damage.empty()) return "damaged: " + Inspect::Printable(block.damage);
  return block.listed ? std::string() : "not in the manifest";
}

}  // namespace

Json JsonOfStat(const std::string& store, const StoreStat& stat) {
  Json manifest = {{"present", stat.manifestPresent}};
  if (stat.manifestPresent) manifest["generation"] = stat.generation;
  if (!stat.manifestDamage.empty()) manifest["damage"] = stat.manifestDamage;
  Json blocks = Json::array();
  for (const BlockStat& block : stat.blocks) blocks.push_back(JsonOfBlock(block));
  return {{"store", JsonOfBytes(store)}, {"log", JsonOfLog(stat.log)},      {"manifest", std::move(manifest)},
          {"blocks", std::move(blocks)}, {"recordTypes", stat.recordTypes}, {"totalBytes", stat.totalBytes}};
}

void WriteStat(const std::string& store, const StoreStat& stat) {
  const Inspect::LogStat& log = stat.log;
  Table summary({Align::Left, Align::Left});
  summary.Add({"store", Inspect::Printable(store)});
  summary.Add({"bytes", std::to_string(stat.totalBytes)});
  summary.Add({"log", !log.present ? "missing"
                                   : std::to_string(log.used) + " of " + std::to_string(log.fileSize) +
                                         " bytes used, " + Counted(log.counts.entries, "record", "records") +
                                         " (" + Counted(log.counts.deletions, "deletion", "deletions") +
                                         ", " + std::to_string(log.counts.expired) + " expired)"});
  if (log.counts.entries != 0) {
    summary.Add({"", Inspect::UtcTime(log.counts.oldest) + " to " + Inspect::UtcTime(log.counts.newest)});
  }
  if (log.present && !log.damage.empty()) summary.Add({"", "damaged: " + log.damage});
  summary.Add(
      {"manifest", !stat.manifestPresent ? "missing" : "generation " + std::to_string(stat.generation)});
  if (stat.manifestPresent && !stat.manifestDamage.empty())
    summary.Add({"", "damaged: " + stat.manifestDamage});
  summary.Add({"blocks", Counted(stat.ListedBlocks(), "block, ", "blocks, ") +
                             std::to_string(stat.ListedBlockBytes()) + " bytes"});
  summary.Add({"record types", std::to_string(stat.recordTypes)});
  summary.Write();
  if (stat.blocks.empty()) return;

  Table blocks({Align::Left, Align::Right, Align::Right, Align::Right, Align::Right, Align::Left, Align::Left,
                Align::Left});
  blocks.Add({"BLOCK", "ENTRIES", "DELETIONS", "EXPIRED", "BYTES", "OLDEST", "NEWEST", ""});
  for (const BlockStat& block : stat.blocks) {
    blocks.Add({Inspect::Printable(block.name), std::to_string(block.counts.entries),
                std::to_string(block.counts.deletions), std::to_string(block.counts.expired),
                std::to_string(block.fileSize), TimeOrNothing(block.counts, block.counts.oldest),
                TimeOrNothing(block.counts, block.counts.newest), StateOf(block)});
  }
  WriteLine("");
  blocks.Write();
}

Json JsonOfReport(const VerifyReport& report) {
  Json findings = Json::array();
  for (const Finding& finding : report.findings) {
    findings.push_back({{"severity", finding.severity == Severity::Damage ? "damage" : "note"},
                        {"file", finding.file},
                        {"offset", finding.offset},
                        {"text", finding.text}});
  }
  return {{"sound", report.Sound()},
          {"damages", report.damages},
          {"notes", report.notes},
          {"logRecords", report.logRecords},
          {"blocks", report.blocks},
          {"blockEntries", report.blockEntries},
          {"recordTypes", report.recordTypes},
          {"findings", std::move(findings)}};
}

void WriteReport(const VerifyReport& report) {
  for (const Finding& finding : report.findings) {
    WriteLine(std::string(finding.severity == Severity::Damage ? "damage  " : "note    ") + finding.file +
              " at " + std::to_string(finding.offset) + ": " + finding.text);
  }
  const uint64_t all = report.damages + report.notes;
  if (all > report.findings.size()) {
    WriteLine("and " + std::to_string(all - report.findings.size()) + " more");
  }
  WriteLine((report.Sound() ? std::string("sound") : Counted(report.damages, "damage", "damages")) +
            ": looked at " + Counted(report.logRecords, "record", "records") + " in the log, " +
            Counted(report.blocks, "block", "blocks") + " with " +
            Counted(report.blockEntries, "entry", "entries") + ", " +
            Counted(report.recordTypes, "record type", "record types"));
}

}  // namespace Kestrun::Tools
