#include "simulator/panel/CommandLine.h"
#include "simulator/panel/SamplePanel.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

namespace nimbra::panel {

static int Main(int argc, char **argv)
{
    CLI::App app("Creates a sample panel: databases, command tool, ifconfig and user images, with\n"
                 "data for everything that the agent reads and changes.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    std::string root = "/";
    bool force = false;
    PanelOptions options;
    options.CommandTool =
        std::filesystem::read_symlink("/proc/self/exe").replace_filename("nimbra-cgi");
    app.add_option("--root", root, "Create the panel below this directory");
    AddSizeOptions(app, options.Size);
    app.add_flag("--cloud", options.CloudEnabled, "Enable the cloud link");
    app.add_option("--address", options.Address, "Address that the panel reports")
        ->capture_default_str();
    app.add_option("--mac", options.MacAddress, "MAC address that the panel reports")
        ->capture_default_str();
    app.add_flag("--force", force, "Replace an existing panel");
    CLI11_PARSE(app, argc, argv);

    const PanelPaths paths(root);
    if (!force && std::filesystem::exists(paths.MainDatabase)) {
        std::fprintf(stderr, "nimbra-sample-panel: %s exists; --force replaces it\n",
                     paths.MainDatabase.c_str());
        return 1;
    }
    try {
        CreatePanel(root, options);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-sample-panel: %s\n", error.what());
        return 1;
    }
    PrintAccounts();
    return 0;
}

} // namespace nimbra::panel

int main(int argc, char *argv[])
{
    return nimbra::panel::Main(argc, argv);
}
