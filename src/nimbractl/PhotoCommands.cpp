#include "nimbractl/Context.h"
#include "nimbractl/ProgressBar.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <unistd.h>

namespace nimbra::ctl {

namespace {

struct PhotoChoice
{
    int Number = 0;
    std::string File;
    std::string Name;
    bool MayReplace = false;
};

/// Only the last part of a name, so that a panel cannot choose the directory, nor make a file that
/// another program looks for, as those are whose names begin with a dot.
std::string LocalName(const std::string &name)
{
    const std::string last = name.substr(name.find_last_of('/') + 1);
    if (last.empty() || last[0] == '.')
        throw WrongUsage("The panel's name of the photograph, \"" + Printable(name) +
                         "\", is no name for a file: give one.");
    return last;
}

void WriteAll(const std::vector<char> &bytes, std::FILE *file, const std::string &name)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || std::fflush(file) != 0)
        throw LocalFailure("Cannot write " + name + ": " + std::strerror(errno) + ".");
}

/// Writes a file of this name; one that is there is replaced only if it may be.
void Store(const std::vector<char> &bytes, const std::string &name, bool mayReplace)
{
    std::FILE *file = std::fopen(name.c_str(), mayReplace ? "wbe" : "wbxe");
    if (file == nullptr && errno == EEXIST)
        throw LocalFailure("There is a file " + name + " already; --force replaces it.");
    if (file == nullptr)
        throw LocalFailure("Cannot write " + name + ": " + std::strerror(errno) + ".");
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> owner(file, std::fclose);
    WriteAll(bytes, file, name);
}

void GetPhoto(Context &context, const PhotoChoice &choice)
{
    client::Session &session = context.Panel.Get();
    client::UserImage photo;
    {
        ProgressBar bar("Receiving");
        photo = session.DownloadUserImage(
            choice.Number, [&bar](std::size_t done, std::size_t total) { bar.Show(done, total); });
    }
    if (photo.Result != 0)
        throw Refused("GetUserImage", photo.Result);
    if (choice.File == "-") {
        WriteAll(photo.Bytes, stdout, "standard output");
        return;
    }
    const std::string name = choice.File.empty() ? LocalName(photo.FileName) : choice.File;
    Store(photo.Bytes, name, choice.MayReplace);
    WriteDone(context,
              name + ": " + std::to_string(photo.Bytes.size()) + " bytes of user " +
                  std::to_string(choice.Number) + ".",
              "Size", static_cast<int>(photo.Bytes.size()));
}

std::vector<char> Load(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    std::vector<char> bytes;
    std::array<char, 65536> piece;
    while (file.read(piece.data(), piece.size()) || file.gcount() > 0)
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + file.gcount());
    if (!file.is_open() || file.bad())
        throw LocalFailure("Cannot read " + name + ".");
    return bytes;
}

/// A name that no other user's photograph has.
std::string NameOf(const PhotoChoice &choice)
{
    if (!choice.Name.empty())
        return choice.Name;
    std::string number = std::to_string(choice.Number);
    number.insert(0, 4 - std::min<std::size_t>(number.size(), 4), '0');
    return "user" + number + std::filesystem::path(choice.File).extension().string();
}

void PutPhoto(Context &context, const PhotoChoice &choice)
{
    const std::vector<char> bytes = Load(choice.File);
    if (bytes.empty())
        throw WrongUsage(choice.File + " is empty, and the panel takes no empty photographs.");
    client::Session &session = context.Panel.Get();
    int result = 0;
    {
        ProgressBar bar("Sending");
        result = session.UploadUserImage(
            choice.Number, NameOf(choice), bytes,
            [&bar](std::size_t done, std::size_t total) { bar.Show(done, total); });
    }
    if (result != 0)
        throw Refused("SetUserImage", result);
    WriteDone(context,
              "User " + std::to_string(choice.Number) + " has the photograph " + NameOf(choice) +
                  " of " + std::to_string(bytes.size()) + " bytes.",
              "Size", static_cast<int>(bytes.size()));
}

} // namespace

void AddPhotoCommands(CLI::App &users, Context &context)
{
    CLI::App &photo = AddGroup(users, "photo", "Photographs of users");
    const auto get =
        AddCommand<PhotoChoice>(photo, "get", "Fetch the photograph of a user", context, GetPhoto);
    const auto put = AddCommand<PhotoChoice>(
        photo, "put",
        "Store the photograph of a user. The panel takes what arrives within 5 seconds", context,
        PutPhoto);
    for (const auto &command : {get, put})
        AddNumber(*command.App, "number", command.Into->Number, "The user's number")->required();
    get.App
        ->add_option("file", get.Into->File,
                     "Where to write it, - for standard output; without it, a file of the panel's "
                     "name in the current directory")
        ->option_text("FILE");
    get.App->add_flag("--force", get.Into->MayReplace, "Replace a file that is there");
    put.App->add_option("file", put.Into->File, "The picture")->required()->option_text("FILE");
    put.App
        ->add_option("--name", put.Into->Name,
                     "The name on the panel, of 5 bytes or more. A photograph of the same name is "
                     "replaced, whoever uses it; without this option the name is made of the "
                     "user's number")
        ->option_text("NAME");
}

} // namespace nimbra::ctl
