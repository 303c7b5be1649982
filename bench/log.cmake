# The log door against spdlog's asynchronous logger.
find_package(spdlog REQUIRED)
tolven_add_bench(log SOURCES log_bench.cpp LIBS spdlog::spdlog)
