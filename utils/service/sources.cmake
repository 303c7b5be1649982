# Service framework: the service core, its event sinks and status writers, the command
# registry and dispatch, and the built-in commands.
list(APPEND TOLVEN_SOURCES
    utils/service/BasicSrv.cpp
    utils/service/BasicSrvImpl.cpp
    utils/service/BasicSrvImplDispatch.cpp
    utils/service/BasicSrvImplCmds.cpp
    utils/service/BasicSrvImplConfigs.cpp
    utils/service/BasicSrvImplMaint.cpp
    utils/service/CommandTree.cpp
    utils/service/EventSink.cpp
    utils/service/ScheduleHandler.cpp
    utils/service/StatusWriters.cpp)
