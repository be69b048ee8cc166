#include "simulator/panel/CallLog.h"

#include "base/Descriptor.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra::panel {

static std::string ToUtf8(const std::string &bytes)
{
    std::string text;
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x80) {
            text += byte;
            continue;
        }
        text += static_cast<char>(0xC0 | (code >> 6));
        text += static_cast<char>(0x80 | (code & 0x3F));
    }
    return text;
}

static std::string ToBytes(const std::string &text)
{
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        auto code = static_cast<unsigned char>(text[at]);
        if (code >= 0x80 && at + 1 < text.size())
            code = static_cast<unsigned char>((code << 6) | (text[++at] & 0x3F));
        bytes += static_cast<char>(code);
    }
    return bytes;
}

void AppendCall(const std::filesystem::path &log, const Call &call)
{
    nlohmann::json array = nlohmann::json::array();
    for (const std::string &argument : call)
        array.push_back(ToUtf8(argument));
    const std::string line = array.dump() + '\n';

    const Descriptor file(open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file.IsOpen() ||
        write(file.Get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw std::system_error(errno, std::generic_category(), log.string());
}

std::vector<Call> ReadCalls(const std::filesystem::path &log)
{
    std::vector<Call> calls;
    std::ifstream file(log);
    for (std::string line; std::getline(file, line);) {
        Call call;
        for (const auto &argument : nlohmann::json::parse(line))
            call.push_back(ToBytes(argument.get<std::string>()));
        calls.push_back(std::move(call));
    }
    return calls;
}

} // namespace nimbra::panel
