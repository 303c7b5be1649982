# The INI reader against POCO's IniFileConfiguration.
tolven_add_bench(config SOURCES config_bench.cpp PEERS POCO)
