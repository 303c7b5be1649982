// A program outside the tree that uses the installed library.
#include <tolven/tolven.h>

#include <cstdio>

int main() {
    TOLVEN::configure_mainthread();
    TOLVEN::auto_thread worker;
    bool ran = false;
    if (!worker.launch("consumer", [&ran] { ran = true; })) return 1;
    if (!worker.join()) return 2;
    if (!ran) return 3;
    std::puts("consumer ok");
    return 0;
}
