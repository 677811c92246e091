// What the desktop does for us with a file the user points at: open it in its usual application,
// or show it selected in the file manager. Both only ask; a refusal is answered with false so the
// view can say so where the user clicked.
#pragma once

#include <string>

#include <QString>

namespace dedup::app {

bool openFile(const std::string& path);
// Through org.freedesktop.FileManager1 ShowItems on the session bus; where no file manager answers,
// opens the folder that holds the file instead.
bool showInFileManager(const std::string& path);

// A byte count as the desktop's file managers show it: "12.3 MB".
QString bytesText(long long bytes);

}  // namespace dedup::app
