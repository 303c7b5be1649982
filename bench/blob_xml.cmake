# The blob's XML form against libxml2's tree and serialiser; compare by name on its own.
tolven_add_bench(blob_xml SOURCES blob_xml_bench.cpp PEERS LIBXML2)
