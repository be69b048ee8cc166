#include "nimbractl/Context.h"
#include "nimbractl/ProgressBar.h"
#include "nimbractl/TextWidth.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <nimbra-client/ResultMessage.h>

namespace nimbra::ctl {

namespace {

struct PhotoChoice
{
    int Number = 0;
    std::string File;
    std::string Name;
    bool MayReplace = false;
};

/// The record of a transfer.
client::Record PhotoRecord(int userNo, const std::string &fileName, std::size_t size)
{
    using client::FieldKind;
    constexpr static std::array<client::Field, 4> kFields{{{"Result", FieldKind::Number},
                                                           {"UserNo", FieldKind::Number},
                                                           {"FileName", FieldKind::Text},
                                                           {"Size", FieldKind::Number}}};
    client::Record record(kFields, "Result=0");
    record.Set("UserNo", std::to_string(userNo));
    record.Set("FileName", fileName);
    record.Set("Size", std::to_string(size));
    return record;
}

/// Returns the last part of a name. So a panel cannot choose the directory, and cannot create a
/// hidden file that another program reads.
std::string LocalName(const std::string &name)
{
    std::string last = name.substr(name.find_last_of('/') + 1);
    if (last.empty() || last[0] == '.')
        throw WrongUsage("The panel's name of the photo, \"" + Printable(name) +
                         "\", is no name for a file: give one.");
    return last;
}

void WriteAll(const std::vector<char> &bytes, std::FILE *file, const std::string &name)
{
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || std::fflush(file) != 0)
        throw LocalFailure("Cannot write " + name + ": " + std::strerror(errno) + ".");
}

[[noreturn]] void FailExisting(const std::string &name)
{
    throw LocalFailure("There is a file " + name + " already; --force replaces it.");
}

/// Writes a file; replaces an existing one only when `mayReplace`.
void Store(const std::vector<char> &bytes, const std::string &name, bool mayReplace)
{
    std::FILE *file = std::fopen(name.c_str(), mayReplace ? "wbe" : "wbxe");
    if (file == nullptr && errno == EEXIST)
        FailExisting(name);
    if (file == nullptr)
        throw LocalFailure("Cannot write " + name + ": " + std::strerror(errno) + ".");
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> owner(file, std::fclose);
    WriteAll(bytes, file, name);
}

void GetPhoto(Context &context, const PhotoChoice &choice)
{
    const bool isFile = !choice.File.empty() && choice.File != "-";
    if (isFile && !choice.MayReplace && std::filesystem::exists(choice.File))
        FailExisting(choice.File);
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
              PhotoRecord(choice.Number, name, photo.Bytes.size()));
}

[[noreturn]] void FailTooLarge(const std::string &name, const std::string &size)
{
    throw WrongUsage(name + " has " + size + " bytes; a panel takes photos of " +
                     std::to_string(client::kUserImageBytes) + " bytes or less.");
}

/// Reads a photo. Refuses one that no panel accepts before it is read, if its size is known.
std::vector<char> Load(const std::string &name)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(name, error);
    if (!error && size > client::kUserImageBytes)
        FailTooLarge(name, std::to_string(size));
    std::ifstream file(name, std::ios::binary);
    std::vector<char> bytes;
    std::array<char, 65536> piece{};
    while (file.read(piece.data(), piece.size()) || file.gcount() > 0) {
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + file.gcount());
        if (bytes.size() > client::kUserImageBytes) // a pipe or a device
            FailTooLarge(name, "more than " + std::to_string(client::kUserImageBytes));
    }
    if (!file.is_open() || file.bad())
        throw LocalFailure("Cannot read " + name + ".");
    if (bytes.empty())
        throw WrongUsage(name + " is empty, and a panel takes no empty photo.");
    return bytes;
}

/// Returns a name that no other user's photo has.
std::string NameOf(const PhotoChoice &choice)
{
    if (!choice.Name.empty())
        return choice.Name;
    std::string number = std::to_string(choice.Number);
    number.insert(0, 4 - std::min<std::size_t>(number.size(), 4), '0');
    return "user" + number + std::filesystem::path(choice.File).extension().string();
}

/// The panel stores a photo for a number that no user has. A login without the right to read users
/// may still store photos.
void RequireUser(Context &context, int number)
{
    const int result =
        context.Panel.Get().Execute(client::Request("GetUserInfo").Number("UserNo", number)).Result;
    if (result != 0 && result != 9)
        throw Refused("There is no user " + std::to_string(number) +
                      ", or the panel cannot read its database; nothing is sent. (GetUserInfo: "
                      "Result=" +
                      std::to_string(result) + ")");
}

void PutPhoto(Context &context, const PhotoChoice &choice)
{
    const std::vector<char> bytes = Load(choice.File);
    const std::string name = NameOf(choice);
    RequireUser(context, choice.Number);
    int result = 0;
    {
        ProgressBar bar("Sending");
        result = context.Panel.Get().UploadUserImage(
            choice.Number, name, bytes,
            [&bar](std::size_t done, std::size_t total) { bar.Show(done, total); });
    }
    const std::string size = std::to_string(bytes.size());
    if (result == 3)
        throw Refused(client::ResultMessage("SetUserImage", result) + " It has " + size +
                      " bytes. (SetUserImage: Result=3)");
    if (result != 0)
        throw Refused("SetUserImage", result);
    WriteDone(context,
              "User " + std::to_string(choice.Number) + " has the photo " + name + " of " + size +
                  " bytes.",
              PhotoRecord(choice.Number, name, bytes.size()));
}

} // namespace

void AddPhotoCommands(CLI::App &users, Context &context)
{
    CLI::App &photo = AddGroup(users, "photo", "Photos of users");
    const auto get =
        AddCommand<PhotoChoice>(photo, "get", "Download the photo of a user", context, GetPhoto);
    const auto put = AddCommand<PhotoChoice>(
        photo, "put", "Upload the photo of a user. All of it must reach the panel within 5 seconds",
        context, PutPhoto);
    for (const auto &command : {get, put})
        AddNumber(*command.App, "number", command.Into->Number, "The user's number")->required();
    get.App
        ->add_option(
            "file", get.Into->File,
            "The file to write, - for standard output; without it, a file with the panel's "
            "name in the current directory")
        ->option_text("FILE");
    get.App->add_flag("--force", get.Into->MayReplace, "Replace an existing file");
    put.App->add_option("file", put.Into->File, "The photo")->required()->option_text("FILE");
    put.App
        ->add_option("--name", put.Into->Name,
                     "The name on the panel, of 5 bytes or more. A photo of the same name is "
                     "replaced, also that of another user; without this option the name is made of "
                     "the user's number")
        ->option_text("NAME");
}

} // namespace nimbra::ctl
