# The limited log call and the file sink, against spdlog's asynchronous daily file sink.
find_package(spdlog REQUIRED)
tolven_add_bench(logsinks SOURCES logsinks_bench.cpp LIBS spdlog::spdlog)
