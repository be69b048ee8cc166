#include "simulator/panel/EventLog.h"
#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"

#include <charconv>
#include <cstdio>
#include <exception>
#include <utility>

namespace nimbra::panel {

namespace {

/// The sample panel's command tool: changes the databases as a panel does when the agent calls it.
/// Each method is false for arguments that it does not know.
class CommandTool
{
public:
    explicit CommandTool(PanelPaths paths) : paths_(std::move(paths)) {}

    bool Execute(const Call &call)
    {
        if (call.size() == 3 && call[0] == "door")
            return Door(call[1], call[2]);
        if (call.size() == 3 && call[0] == "auxout")
            return AuxOut(call[1], call[2]);
        if (call.size() == 10 && call[0] == "log")
            return Log(call);
        // A panel reads the level in force from its own database: nothing is left to do.
        return call.size() == 1 && call[0] == "savethreat";
    }

private:
    static bool Number(const std::string &text, int &value)
    {
        const char *end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        return error == std::errc() && stop == end;
    }

    bool Door(const std::string &number, const std::string &control)
    {
        int no = 0;
        // The panel locks again some seconds after m_unlock; here the door stays unlocked.
        const bool unlock = control == "unlocked" || control == "m_unlock";
        if (!Number(number, no) || (!unlock && control != "locked"))
            return false;
        SqliteFile file(paths_.MainDatabase);
        // A door with a contact state other than 0 is unlocked by releasing its relay.
        SqliteStatement(file, "UPDATE RelayStatus SET RelayOn = ((SELECT IFNULL((SELECT"
                              " DoorContactState FROM Door WHERE No=?2), 0)) = 0) = ?1"
                              " WHERE Type=3 AND No=?2")
            .Execute(unlock ? 1 : 0, no);
        return file.Changes() == 1;
    }

    bool AuxOut(const std::string &number, const std::string &control)
    {
        int no = 0;
        const bool on = control == "on";
        if (!Number(number, no) || (!on && control != "off"))
            return false;
        SqliteFile file(paths_.MainDatabase);
        SqliteStatement(file, "UPDATE RelayStatus SET RelayOn=? WHERE Type=2 AND No=?")
            .Execute(on ? 1 : 0, no);
        return file.Changes() == 1;
    }

    bool Log(const Call &call)
    {
        SampleEvent event{};
        if (!Number(call[1], event.Type) || !Number(call[3], event.Port) ||
            !Number(call[4], event.EventCode) || !Number(call[5], event.CardNo) ||
            !Number(call[6], event.UserNo) || !Number(call[8], event.VideoTag))
            return false;
        event.DeviceName = call[2];
        event.UserName = call[7];
        AppendEvent(paths_, event);
        return true;
    }

    PanelPaths paths_;
};

} // namespace

/// The root of the panel that this program belongs to, found from its own path.
static std::filesystem::path OwnRoot()
{
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path root = self.parent_path().parent_path().parent_path();
    if (PanelPaths(root).CommandTool != self)
        throw std::runtime_error("is not part of a panel; create one with nimbra-sample-panel");
    return root;
}

static int Main(const Call &call)
{
    try {
        const PanelPaths paths(OwnRoot());
        AppendCall(paths.CallLog, call);
        if (CommandTool(paths).Execute(call))
            return 0;
        std::fputs("nimbra-cgi: the panel does not know this command\n", stderr);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-cgi: %s\n", error.what());
    }
    return 1;
}

} // namespace nimbra::panel

int main(int argc, char *argv[])
{
    return nimbra::panel::Main(nimbra::panel::Call(argv + 1, argv + argc));
}
