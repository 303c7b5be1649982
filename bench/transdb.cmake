# The transaction file against write(2), pread(2) and RocksDB's write-ahead log.
tolven_add_bench(transdb SOURCES transdb_bench.cpp PEERS ROCKSDB)
