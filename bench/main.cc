// kestrun_bench_PEER: measures one kind of work with one store and ends. script/bench
// runs these programs in turns.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "measure.h"
#include "peers/peer.h"
#include "rows.h"

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--settings") {
    const std::unique_ptr<Bench::Peer> peer = Bench::MakePeer();
    std::printf("%s\t%s\n", peer->Version().c_str(), peer->Settings().c_str());
    return 0;
  }
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s --settings\n       %s ROW DIRECTORY ENTRIES VALUE_BYTES LOG_BYTES\n",
                 argv[0], argv[0]);
    return 2;
  }
  // Stores may print: the results keep the standard output for themselves.
  const int results = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Bench::Require(results >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0, "setting the standard output aside");

  Bench::Setting setting;
  setting.directory = argv[2];
  setting.entries = std::strtoull(argv[3], nullptr, 10);
  setting.valueBytes = std::strtoull(argv[4], nullptr, 10);
  setting.logBytes = std::strtoull(argv[5], nullptr, 10);
  if (!Bench::MeasureRow(argv[1], setting, results)) Bench::Fail(std::string("there is no row ") + argv[1]);
  return 0;
}
