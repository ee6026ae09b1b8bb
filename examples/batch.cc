// Writes that belong together: a batch is there as a whole or not at all, for every reader and after every
// kill. Takes the directory of the store.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "kestrun/kestrun.h"

using Kestrun::kStatusOk;

namespace {

// Gives a document a new name: the text, and the list that names it, change together.
uint32_t Rename(Kestrun::Store& store, const std::string& from, const std::string& to) {
  std::optional<std::string> text;
  if (const uint32_t status = store.Get("text/" + from, &text)) return status;
  if (!text) return kStatusOk;

  Kestrun::WriteBatch batch;
  if (const uint32_t status = batch.Put("text/" + to, *text)) return status;
  if (const uint32_t status = batch.Put("list", to)) return status;
  if (const uint32_t status = batch.Delete("text/" + from)) return status;
  return store.Write(batch);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: batch STORE\n";
    return 2;
  }
  std::unique_ptr<Kestrun::Store> store;
  if (Kestrun::Store::Open(argv[1], {}, &store) != kStatusOk) return 1;

  Kestrun::WriteBatch first;
  if (first.Put("text/draft", "It was a dark night.") || first.Put("list", "draft")) return 1;
  if (store->Write(first) != kStatusOk || Rename(*store, "draft", "novel") != kStatusOk) return 1;
  if (store->Sync() != kStatusOk) return 1;  // from here on it survives a loss of power, too

  std::optional<std::string> name;
  std::optional<std::string> text;
  bool draft = true;
  if (store->Get("list", &name) != kStatusOk || !name) return 1;
  if (store->Get("text/" + *name, &text) != kStatusOk || !text) return 1;
  if (store->Contains("text/draft", &draft) != kStatusOk || draft) return 1;
  std::cerr << *name << ": " << *text << '\n';
  return 0;
}
