# config subsystem
