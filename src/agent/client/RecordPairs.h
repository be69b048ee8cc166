#pragma once

namespace nimbra {

struct AccessLevelInfo;
struct CardFormatInfo;
struct CardInfo;
struct DoorInfo;
struct EventCodeInfo;
struct EventInfo;
struct ThreatInfo;
struct UserInfo;
struct VideoInfo;
class Line;

/// Appends the pairs of a record to a line: to a response, or to a row of a list. Any thread.

void PutPairs(const EventInfo &event, Line *line);
void PutPairs(const EventCodeInfo &code, Line *line);
void PutPairs(const VideoInfo &video, Line *line);
void PutPairs(const DoorInfo &door, Line *line);
void PutPairs(const UserInfo &user, Line *line);
void PutPairs(const CardFormatInfo &format, Line *line);
void PutPairs(const CardInfo &card, Line *line);
void PutPairs(const AccessLevelInfo &level, Line *line);
void PutPairs(const ThreatInfo &threat, Line *line);

} // namespace nimbra
