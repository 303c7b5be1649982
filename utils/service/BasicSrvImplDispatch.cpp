// The command registry of a service and the dispatch of a line of operator text.
#include <cstring>
#include <exception>
#include <utility>

#include "platform/thread.h"
#include "service/BasicSrvImpl.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "BasicSrvImplDispatch";

// Holds the state lock and, when asked, the registration lock before it.
class LockPair {
  public:
    LockPair(QuickLock& registration, QuickLock& state)
        : registration_(registration), state_(state) {
        registration_.Lock();
        state_.Lock();
    }
    ~LockPair() {
        state_.Unlock();
        registration_.Unlock();
    }
    LockPair(const LockPair&) = delete;
    LockPair& operator=(const LockPair&) = delete;

  private:
    QuickLock& registration_;
    QuickLock& state_;
};

void LogHandlerException(const char* command, const char* what) {
    TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::BasicSrvImpl::ProcessCommand", "Command %s failed: %s",
               command, what);
}

}  // namespace

detail::CommandNode* BasicSrvImpl::FindCommand(const detail::CommandName& name) {
    const detail::CommandMap* map = &commands_;
    detail::CommandNode* node = nullptr;
    for (const std::string& word : name.words) {
        auto it = map->find(word);
        if (it == map->end()) return nullptr;
        node = it->second.get();
        if (node->fullName == name.fullName) return node;
        map = &node->children;
    }
    return nullptr;
}

basicsrv_status BasicSrvImpl::RegisterCommand(const _REGISTER_COMMAND_INFO& info) {
    const detail::CommandName name = detail::SplitCommandName(info.name);
    if (name.words.empty()) return basicsrv_invalid_command;
    LockPair locks(registrationLock_, stateLock_);
    if (FindCommand(name) != nullptr) return basicsrv_already_exists;

    detail::CommandMap* map = &commands_;
    detail::CommandNode* node = nullptr;
    for (const std::string& word : name.words) {
        auto it = map->find(word);
        if (it == map->end()) {
            auto created = std::make_unique<detail::CommandNode>();
            created->word = word;
            it = map->emplace(word, std::move(created)).first;
        }
        node = it->second.get();
        map = &node->children;
    }
    node->fullName = name.fullName;
    node->shortHelp = detail::ExpandCommandHelp(info.shortHelp, name.fullName);
    node->longHelp = detail::ExpandCommandHelp(info.longHelp, name.fullName);
    node->context = info.context;
    node->handler = info.handler;
    return basicsrv_success;
}

bool BasicSrvImpl::CommandExists(const char* name) {
    if (name == nullptr) return false;
    const detail::CommandName split = detail::SplitCommandName(name);
    if (split.words.empty()) return false;
    QuickLockGuard guard(stateLock_);
    return FindCommand(split) != nullptr;
}

basicsrv_status BasicSrvImpl::UnregisterCommand(const char* name) {
    const detail::CommandName split = detail::SplitCommandName(name);
    if (split.words.empty()) return basicsrv_not_found;
    LockPair locks(registrationLock_, stateLock_);
    if (FindCommand(split) == nullptr) return basicsrv_not_found;

    // The nodes from the first word down to the command.
    std::vector<detail::CommandNode*> path;
    const detail::CommandMap* map = &commands_;
    for (const std::string& word : split.words) {
        detail::CommandNode* node = map->find(word)->second.get();
        path.push_back(node);
        if (node->fullName == split.fullName) break;
        map = &node->children;
    }

    // The command itself gets one grace period; an ancestor that runs holds the walk until
    // it ends, since it may go away with the command below.
    std::size_t index = path.size();
    while (index > 0) {
        --index;
        if (activeCommands_.count(path[index]) == 0) continue;
        stateLock_.Unlock();
        TOLVEN_LOG(LOGGER_TRACE, kFile, "TOLVEN::BasicSrvImpl::UnregisterCommand",
                   "Waiting for active commands to complete!");
        platform::SleepMs(kRetrySleepMs);
        stateLock_.Lock();
        index = path.size() - 1;
    }

    detail::CommandNode* command = path.back();
    command->fullName.clear();
    command->shortHelp.clear();
    command->longHelp.clear();
    command->context = nullptr;
    command->handler = nullptr;

    // A node left without children goes, and so on up to the root.
    for (std::size_t i = path.size(); i > 0; --i) {
        detail::CommandNode* node = path[i - 1];
        if (!node->children.empty()) break;
        detail::CommandMap& parent = i > 1 ? path[i - 2]->children : commands_;
        parent.erase(node->word);
    }
    return basicsrv_success;
}

void BasicSrvImpl::WaitForActiveCommands() {
    stateLock_.Lock();
    while (!activeCommands_.empty()) {
        stateLock_.Unlock();
        TOLVEN_LOG(LOGGER_TRACE, kFile, "TOLVEN::BasicSrvImpl::UnregisterAllCommands",
                   "Waiting for active commands to complete!");
        platform::SleepMs(kRetrySleepMs);
        stateLock_.Lock();
    }
    stateLock_.Unlock();
}

basicsrv_status BasicSrvImpl::UnregisterAllCommands() {
    QuickLockGuard registration(registrationLock_);
    WaitForActiveCommands();
    detail::CommandMap doomed;
    {
        QuickLockGuard state(stateLock_);
        doomed.swap(commands_);
    }
    return basicsrv_success;
}

bool BasicSrvImpl::AskRootRight(unsigned int callerId, const char* word, bool callerFlag) const {
    try {
        return facade_->CanRunRootCommand(callerId, word, callerFlag);
    } catch (...) {
        return false;
    }
}

bool BasicSrvImpl::AskCommandRight(unsigned int callerId, const char* fullName,
                                   bool callerFlag) const {
    try {
        return facade_->CanRunCommand(callerId, fullName, callerFlag);
    } catch (...) {
        return false;
    }
}

basicsrv_status BasicSrvImpl::ProcessCommand(const char* command, BasicSrvStatusWriter* writer,
                                             bool callerFlag, bool interactive,
                                             unsigned int callerId) {
    if (command == nullptr) return basicsrv_invalid_parameter;
    EmptyStatusWriter empty;
    // Messages go to the caller's writer; with none they are dropped.
    BasicSrvStatusWriter& out = writer != nullptr ? *writer : empty;

    char line[kCommandLineSize];
    const std::size_t length = strnlen(command, kCommandLineSize - 1);
    std::memcpy(line, command, length);
    line[length] = '\0';

    const char* first = nullptr;
    const char* args[kMaxArguments];
    unsigned int argc = kMaxArguments;
    try {
        if (!CutCommand(line, &first, args, &argc)) {
            (void)out.WriteStatus("\nError parsing command\n");
            return basicsrv_invalid_command;
        }
        if (first == nullptr) {
            (void)out.WriteStatus("\nInvalid command\n");
            return basicsrv_invalid_command;
        }
    } catch (...) {
        return basicsrv_invalid_command;
    }

    // The run's full name, copied out of the tree: the node may go while the handler runs.
    char fullName[detail::kMaxCommandName + 1];
    BasicSrvCommandHandler handler = nullptr;
    void* context = nullptr;
    const detail::CommandNode* node = nullptr;
    unsigned int consumed = 0;

    try {
        QuickLockGuard guard(stateLock_);
        auto it = commands_.find(std::string_view(first));
        if (it == commands_.end()) {
            guard.Release();
            (void)out.FormatStatus("\nCommand %s not found!\n", first);
            return basicsrv_success;
        }
        node = it->second.get();
        bool rootGranted = false;
        for (; consumed < argc; ++consumed) {
            auto child = node->children.find(std::string_view(args[consumed]));
            if (child == node->children.end()) break;
            if (consumed == 0 && !rootGranted)
                rootGranted = AskRootRight(callerId, first, callerFlag);
            node = child->second.get();
        }
        if (node->fullName.empty()) {
            (void)out.FormatStatus("\n%s commands:\n", node->word.c_str());
            detail::WriteCommandList(out, node->children);
            (void)out.WriteStatus("\n");
            return basicsrv_success;
        }
        std::memcpy(fullName, node->fullName.c_str(), node->fullName.size() + 1);
        if (!rootGranted && !AskCommandRight(callerId, fullName, callerFlag)) {
            guard.Release();
            (void)out.FormatStatus("You do not have permission to run the %s command!\n", fullName);
            return basicsrv_permission_denied;
        }
        ++activeCommands_[node];
        handler = node->handler;
        context = node->context;
    } catch (...) {
        // A writer that threw, or no memory for the count: the handler did not run.
        return basicsrv_success;
    }

    _BASICSRV_COMMAND_INFO info{};
    info.writer = &out;
    info.command = fullName;
    info.argc = argc - consumed;
    info.args = info.argc == 0 ? nullptr : args + consumed;
    info.callerFlag = callerFlag;
    info.interactive = interactive;
    try {
        (void)out.WriteStatus("\n");
        if (handler != nullptr) (void)handler(info, context);
        (void)out.WriteStatus("\n");
    } catch (const std::exception& e) {
        LogHandlerException(fullName, e.what());
        try {
            (void)out.FormatStatus("Command %s failed: %s\n", fullName, e.what());
        } catch (...) {
        }
    } catch (...) {
        LogHandlerException(fullName, "unknown exception");
        try {
            (void)out.FormatStatus("Command %s failed: unknown exception\n", fullName);
        } catch (...) {
        }
    }

    stateLock_.Lock();
    auto active = activeCommands_.find(node);
    if (active != activeCommands_.end() && --active->second == 0) activeCommands_.erase(active);
    stateLock_.Unlock();
    return basicsrv_success;
}

void BasicSrvImpl::WriteCommandHelp(BasicSrvStatusWriter& writer, const char* text) {
    const detail::CommandName name = detail::SplitCommandName(text);
    QuickLockGuard guard(stateLock_);
    if (name.words.empty()) {
        (void)writer.WriteStatus("Help Commands:\n");
        detail::WriteCommandList(writer, commands_);
        return;
    }
    const detail::CommandMap* map = &commands_;
    const detail::CommandNode* node = nullptr;
    bool found = true;
    for (const std::string& word : name.words) {
        auto it = map->find(word);
        if (it == map->end()) {
            (void)writer.FormatStatus("\nCommand %s not found!\n", name.fullName.c_str());
            found = false;
            break;
        }
        node = it->second.get();
        if (node->fullName == name.fullName) break;
        map = &node->children;
    }
    if (node == nullptr) return;
    if (found) {
        const bool exact = node->fullName == name.fullName;
        if (!node->longHelp.empty()) {
            (void)writer.FormatStatus("%s\n", node->longHelp.c_str());
        } else if (!node->shortHelp.empty()) {
            (void)writer.FormatStatus("%s\n", node->shortHelp.c_str());
        } else if (exact) {
            (void)writer.FormatStatus("\nSorry, no help found for command %s.\n",
                                      name.fullName.c_str());
        }
    }
    if (!node->children.empty()) {
        (void)writer.FormatStatus("\n%s commands:\n", node->word.c_str());
        detail::WriteCommandList(writer, node->children);
    }
}

}  // namespace TOLVEN
