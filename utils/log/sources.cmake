# log subsystem
