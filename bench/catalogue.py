"""What is measured: the rows, their titles, units and goals, and the stores."""

from dataclasses import dataclass

KESTRUN = ["kestrun", "kestrun_lsdb"]
OTHERS = ["leveldb", "rocksdb", "lmdb", "sqlite"]
PEERS = KESTRUN + OTHERS
PEER_TITLES = {
    "kestrun": "Kestrun `Store`",
    "kestrun_lsdb": "Kestrun `LSDBImpl`",
    "leveldb": "LevelDB",
    "rocksdb": "RocksDB",
    "lmdb": "LMDB",
    "sqlite": "SQLite",
}

LOCK_UNITS = "lock units"
MIB = 1024 * 1024
QUICK = [peer for peer in PEERS if peer != "sqlite"]  # where a transaction for each of a million puts takes too long


@dataclass(frozen=True)
class Row:
    name: str  # of the work, with the size behind "@" where it is not the usual one
    title: str
    unit: str = LOCK_UNITS
    goal: float | None = None  # of `Store`, in the row's unit
    more_is_better: bool = False
    entries: int = 100_000
    value_bytes: int = 100
    log_bytes: int = 4 * MIB
    peers: tuple = tuple(PEERS)
    rounds: int = 5  # at most
    full: bool = False  # measured when it is asked for only

    @property
    def work(self):
        return self.name.split("@")[0]


ROWS = [
    Row("put-random", "put, random, log not full", goal=0.9),
    Row("put-again", "put over 10,000 keys that are there, log not full"),
    Row("put-random-flush", "put, random, flushes included", goal=1.05),
    Row("put-ascending", "put, ascending, flushes included", goal=0.8),
    Row("delete-random", "delete, random", goal=0.9),
    Row("put-batch100", "put in batches of 100, per entry", goal=0.25),
    Row("get-log", "get from the log", goal=1.0),
    Row("get-missing-empty", "get, missing, no blocks", goal=1.7),
    Row("get-missing-block", "get, missing, one compacted block"),
    Row("get-mixed", "get, mixed log and blocks", goal=2.0),
    Row("get-block", "get from one compacted block", goal=2.0),
    Row("get-snapshot-log", "get through a snapshot, log", goal=0.35),
    Row("get-snapshot-block", "get through a snapshot, block", goal=0.35),
    Row("scan100", "scan of 100 entries with values", goal=4.0),
    Row("scan100-keys", "scan of 100 keys", goal=3.5),
    Row("full-scan", "full scan with values", "M entries/s", 16, True),
    Row("compaction", "compaction of a store that was written twice", "MB/s of live data", 300, True),
    Row("open-full-log", "open, then first get, full log of 4 MiB", "ms", 2.5),
    Row("open-empty-log", "open, then first get, empty log", "ms", 0.3),
    Row("processes", "2 writers + 2 readers, each a process", "thousand calls/s", 300, True),
    Row("longest-pause", "longest put of each log that fills", "ms"),
    Row("disk-after-overwrite", "disk after everything was written twice", "MB", 24),
    Row("get-40-blocks", "get with 40 blocks that are not compacted", peers=tuple(KESTRUN)),
    Row("put-random-flush@1KiB", "put, random, flushes included, values of 1 KiB", value_bytes=1024, rounds=3),
    Row("get-mixed@1KiB", "get, mixed log and blocks, values of 1 KiB", value_bytes=1024, rounds=3),
    Row("get-block@1KiB", "get from one compacted block, values of 1 KiB", value_bytes=1024, rounds=3),
    Row("scan100@1KiB", "scan of 100 entries with values of 1 KiB", value_bytes=1024, rounds=3),
    Row("growth", "put, random, then get: 100k entries", rounds=3),
    Row("growth@1M", "put, random, then get: 1M entries", entries=1_000_000, peers=tuple(QUICK), rounds=1),
    Row("open-empty-log@1M", "open, then first get, empty log, 1M entries", "ms", entries=1_000_000, rounds=1),
    Row("get-block@1M", "get from one compacted block, 1M entries", entries=1_000_000, rounds=1),
    Row("get-40-blocks@1M", "get with 40 blocks that are not compacted, 1M entries", entries=1_000_000,
        peers=("kestrun",), rounds=1),
    Row("full-scan@1M", "full scan with values, 1M entries", "M entries/s", None, True, entries=1_000_000, rounds=1,
        full=True),
    Row("compaction@1M", "compaction of a store that was written twice, 1M entries", "MB/s of live data", None, True,
        entries=1_000_000, peers=tuple(QUICK), rounds=1, full=True),
    Row("growth@10M", "put, random, then get: 10M entries, log of 16 MiB", entries=10_000_000, log_bytes=16 * MIB,
        peers=("kestrun", "leveldb", "rocksdb", "lmdb"), rounds=1, full=True),
    Row("open-empty-log@10M", "open, then first get, empty log, 10M entries", "ms", entries=10_000_000,
        log_bytes=16 * MIB, peers=("kestrun",), rounds=1, full=True),
]
