// The commands every service answers, registered at construction.
#include <string>

#include "service/BasicSrvImpl.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "BasicSrvImplCmds";

basicsrv_status QuitCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    (void)info.writer->WriteStatus("Shutting down");
    (void)static_cast<BasicSrvImpl*>(context)->Shutdown();
    return basicsrv_success;
}

basicsrv_status MaintCommandHandler(_BASICSRV_COMMAND_INFO& info, void* context) {
    static_cast<BasicSrvImpl*>(context)->MaintCommandLine(info);
    return basicsrv_success;
}

basicsrv_status HelpCommand(_BASICSRV_COMMAND_INFO& info, void* context) {
    auto* impl = static_cast<BasicSrvImpl*>(context);
    if (info.argc == 0) {
        impl->WriteCommandHelp(*info.writer, nullptr);
        return basicsrv_success;
    }
    std::string text;
    for (unsigned int i = 0; i < info.argc; ++i) {
        text += info.args[i];
        text += ';';
    }
    impl->WriteCommandHelp(*info.writer, text.c_str());
    return basicsrv_success;
}

}  // namespace

void BasicSrvImpl::RegisterBuiltinCommands() {
    // Registration fails only for a name taken, which cannot happen in a new service.
    if (registerQuit_) {
        (void)RegisterCommand(
            {"quit", "Quits the application.", "Quits the application.", this, &QuitCommand});
    } else {
        TOLVEN_LOG(LOGGER_NORMAL, kFile, "TOLVEN::BasicSrvImpl::RegisterBuiltinCommands",
                   "Quit has not been registered");
    }
    // The views into the library's registries (uptime, version, then after help alloc,
    // threads, logn, filelevel, counters, config) join the table here, in that order.
    (void)RegisterCommand({"maint", "Run or display application maintenance commands.",
                           "Run or display application maintenance commands.  Use maint help "
                           "for more info.",
                           this, &MaintCommandHandler});
    (void)RegisterCommand({"help", "Displays help.", "Displays help.", this, &HelpCommand});
    (void)RegisterCommand({"?", "Displays help.", "Displays help.", this, &HelpCommand});
}

}  // namespace TOLVEN
