# tools subsystem
