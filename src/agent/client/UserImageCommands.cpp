#include "client/ClientWorker.h"
#include "client/ImageFile.h"
#include "data/DataManager.h"
#include "protocol/SocketIo.h"

#include <vector>

namespace nimbra {

void ClientWorker::GetUserImage(char *line)
{
    UserImage image;
    ParseKeys(line, {{"UserNo", &image.UserNo}});
    if (!DataManager::GetInstance()->GetUserImage(&image))
        return Fail();
    std::vector<char> bytes;
    if (!ReadImageFile(image.FileName.View(), &bytes))
        return Answer(Result::BadMessage, "fopen fail");
    Send(Response(Result::Success)
             .Pair("FileName", image.FileName)
             .Pair("Size", static_cast<std::int32_t>(bytes.size())));
    SendBuffer(socket_.Get(), bytes.data(), bytes.size());
}

void ClientWorker::SetUserImage(char *line)
{
    UserImage image;
    std::int32_t size = 0;
    ParseKeys(line, {{"UserNo", &image.UserNo}, {"FileName", &image.FileName}, {"Size", &size}});
    std::vector<char> bytes;
    const std::size_t announced = size > 0 ? static_cast<std::size_t>(size) : 0;
    if (announced == 0 || RecvBuffer(socket_.Get(), &bytes, announced) < announced)
        return Answer(Result::BadTransfer, "RecvBuffer fail");
    if (!WriteImageFile(image.FileName.View(), bytes))
        return Answer(Result::BadMessage, "fopen fail");
    if (!DataManager::GetInstance()->SetUserImage(image))
        return Fail();
    Audit(AuditEvent::UserChanged);
    Succeed();
}

} // namespace nimbra
