// Feeds arbitrary bytes as operator command lines to a service with a small command tree,
// and to CutCommand. Every line must get one of the service's answers and a valid status;
// a handler must see its arguments within the bounds it was promised.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tolven/basicsrv.h"

using namespace TOLVEN;

namespace {

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

// Keeps the answer of one line.
class Answer : public BasicSrvStatusWriter {
  public:
    basicsrv_status WriteStatus(const char* text) override {
        Check(text != nullptr);
        text_ += text;
        return basicsrv_success;
    }
    basicsrv_status FlushStatus() override { return basicsrv_success; }
    std::string text_;
};

basicsrv_status Handler(_BASICSRV_COMMAND_INFO& info, void* context) {
    Check(info.writer != nullptr && info.command != nullptr);
    Check(info.argc <= 20);
    Check((info.argc == 0) == (info.args == nullptr));
    for (unsigned int i = 0; i < info.argc; ++i)
        Check(std::strlen(info.args[i]) < 4096);
    ++*static_cast<uint64_t*>(context);
    return info.writer->FormatStatus("%s %u", info.command, info.argc);
}

// Refuses everything under "admin" and the command "secret".
class Service : public BasicSrv {
  public:
    Service() : BasicSrv(Info()) {}

  protected:
    bool CanRunRootCommand(unsigned int, const char* command, bool) const override {
        return std::strcmp(command, "admin") != 0;
    }
    bool CanRunCommand(unsigned int, const char* command, bool) const override {
        return std::strcmp(command, "secret") != 0;
    }

  private:
    static _BASICSRV_STARTUP_INFO Info() {
        _BASICSRV_STARTUP_INFO info;
        info.srvName = "fuzz";
        info.noFileLog = true;
        info.registerQuit = false;
        return info;
    }
};

Service& TheService(uint64_t* runs) {
    static Service* service = [runs] {
        auto* s = new Service;
        for (const char* name : {"view config", "view counters", "show a b c", "admin kill",
                                 "admin reset all", "secret", "run", "\"q"}) {
            Check(s->RegisterCommand({name, "short $COMMAND help", "long $COMMAND", runs,
                                      &Handler}) == basicsrv_success);
        }
        return s;
    }();
    return *service;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static uint64_t runs = 0;
    Service& service = TheService(&runs);
    std::string line(reinterpret_cast<const char*>(data), size);
    line.resize(std::strlen(line.c_str()));  // text ends at a NUL

    Answer answer;
    const basicsrv_status st = service.ProcessCommand(line.c_str(), &answer, size % 2 == 0,
                                                      size % 3 == 0, static_cast<unsigned>(size));
    switch (st) {
        case basicsrv_success:
        case basicsrv_permission_denied:
            Check(!answer.text_.empty());
            break;
        case basicsrv_invalid_command:
            Check(answer.text_ == "\nInvalid command\n" ||
                  answer.text_ == "\nError parsing command\n");
            break;
        default:
            Check(false);
    }
    Check(answer.text_.size() < 64 * 1024);

    // The same bytes through the cutter, with little room.
    std::string copy = line;
    const char* command = nullptr;
    const char* args[3] = {};
    unsigned int count = 3;
    const bool ok = CutCommand(copy.data(), &command, args, &count);
    Check(count <= 3);
    if (ok && command == nullptr) Check(count == 0);
    const char* end = copy.data() + copy.size();
    for (unsigned int i = 0; i < count; ++i)
        Check(args[i] >= copy.data() && args[i] <= end);
    return 0;
}
