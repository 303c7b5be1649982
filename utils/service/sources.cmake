# service subsystem
