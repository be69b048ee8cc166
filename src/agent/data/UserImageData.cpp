#include "base/PanelConstants.h"
#include "data/DataManager.h"
#include "data/Database.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"

namespace nimbra {

namespace {

/// The shortest file name that counts as that of an image: one character and a three-letter
/// extension.
constexpr std::size_t kShortestName = 5;

} // namespace

bool DataManager::GetUserImage(UserImage *image)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    Statement row(panel,
                  SqlText("SELECT IFNULL(ImageFile, '') FROM User WHERE No=%d", image->UserNo));
    if (!row.Step())
        return false;
    row.Read(&image->FileName);
    return image->FileName.View().size() >= kShortestName;
}

bool DataManager::SetUserImage(const UserImage &image)
{
    const WriteLock lock(kLogSource);
    Database panel(kMainDatabase, kLogSource);
    return lock.IsHeld() && panel.IsOpen() &&
           Change(panel, SqlText("UPDATE User SET ImageFile='%s' WHERE No=%d", image.FileName.Get(),
                                 image.UserNo));
}

} // namespace nimbra
