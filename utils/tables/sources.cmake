# tables subsystem
