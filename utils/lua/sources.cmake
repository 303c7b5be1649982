# lua subsystem
