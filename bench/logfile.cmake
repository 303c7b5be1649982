# Dated text log files against spdlog's daily file sink behind its asynchronous logger.
find_package(spdlog REQUIRED)
tolven_add_bench(logfile SOURCES logfile_bench.cpp LIBS spdlog::spdlog)
