# Dated text log files against spdlog's daily file sink behind its asynchronous logger.
# Every row but the delay has spdlog beside it, so the program is built only with that peer.
if(TOLVEN_BENCH_HAVE_SPDLOG)
    tolven_add_bench(logfile SOURCES logfile_bench.cpp PEERS SPDLOG)
endif()
