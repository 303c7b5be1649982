# memory subsystem
