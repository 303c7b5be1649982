# The limited log call and the file sink, against spdlog's asynchronous daily file sink.
# Every row has spdlog beside it, so the program is built only with that peer.
if(TOLVEN_BENCH_HAVE_SPDLOG)
    tolven_add_bench(logsinks SOURCES logsinks_bench.cpp PEERS SPDLOG)
endif()
