#include "client/ClientWorker.h"
#include "data/DataManager.h"

#include <vector>

namespace nimbra {

namespace {

/// The keys of all that is kept of a card but the record number.
std::vector<RequestKey> DataKeys(CardInfo *card)
{
    return {{"UserNo", &card->UserNo},           {"FormatNo", &card->FormatNo},
            {"CardNumber", &card->CardNumber},   {"KeyNumber", &card->KeyNumber},
            {"CardStatus", &card->CardStatus},   {"CardType", &card->CardType},
            {"NeverExpire", &card->NeverExpire}, {"ActDate", AsDate(&card->ActDate)},
            {"ExpDate", AsDate(&card->ExpDate)}};
}

/// Whether a request gives all that a card cannot do without.
bool IsComplete(const CardInfo &card)
{
    return card.UserNo != 0 && card.FormatNo != 0 && !card.CardNumber.IsEmpty();
}

} // namespace

void ClientWorker::GetCardFormat(char *line)
{
    CardFormatInfo format;
    ParseKeys(line, {{"FormatNo", &format.FormatNo}});
    if (!DataManager::GetInstance()->GetCardFormat(&format))
        return Fail();
    RespondRecord(format);
}

void ClientWorker::GetCardFormatEx(char *line)
{
    Paging page;
    ParseKeys(line, {{"Offset", &page.Offset}, {"Limit", &page.Limit}});
    RowList<CardFormatInfo> rows;
    if (!DataManager::GetInstance()->GetCardFormatEx(&page, &rows))
        return Fail();
    RespondList(page, &rows);
}

void ClientWorker::GetCardInfo(char *line)
{
    CardInfo card;
    ParseKeys(line, {{"CardNo", &card.No}});
    if (!DataManager::GetInstance()->GetCardInfo(&card))
        return Fail();
    RespondRecord(card);
}

void ClientWorker::GetCardInfoEx(char *line)
{
    CardFilter filter;
    ParseKeys(line, {{"UserNo", &filter.UserNo},
                     {"Offset", &filter.Page.Offset},
                     {"Limit", &filter.Page.Limit}});
    RowList<CardInfo> rows;
    if (!DataManager::GetInstance()->GetCardInfoEx(&filter, &rows))
        return Fail();
    RespondList(filter.Page, &rows);
}

void ClientWorker::SetCardInfo(char *line)
{
    CardInfo card;
    std::vector<RequestKey> keys = DataKeys(&card);
    keys.emplace_back("CardNo", &card.No);
    ParseKeys(line, keys);
    if (card.No == 0 || !IsComplete(card))
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->SetCardInfo(card))
        return Fail();
    Audit(AuditEvent::CardChanged);
    Succeed();
}

void ClientWorker::AddCardInfo(char *line)
{
    CardInfo card;
    ParseKeys(line, DataKeys(&card));
    if (!IsComplete(card))
        return Answer(Result::BadMessage, "Message fail");
    if (!DataManager::GetInstance()->AddCardInfo(card))
        return Fail();
    Audit(AuditEvent::CardAdded);
    Succeed();
}

void ClientWorker::DelCardInfo(char *line)
{
    CardInfo card;
    ParseKeys(line, {{"CardNo", &card.No}});
    if (!DataManager::GetInstance()->DelCardInfo(card))
        return Fail();
    Audit(AuditEvent::CardDeleted);
    Succeed();
}

} // namespace nimbra
