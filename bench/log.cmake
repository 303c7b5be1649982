# The log door against spdlog's asynchronous logger.
tolven_add_bench(log SOURCES log_bench.cpp PEERS SPDLOG)
