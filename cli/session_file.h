// The current-session file: the id of the last created session, kept in the working directory
// between runs so that later commands may leave their session (or doer) id out. Every failure is
// reported on standard output and otherwise ignored; the caller decides whether it matters.
#pragma once

// Path of the file, relative to the working directory of the run.
constexpr const char kCurSessionPath[] = "./current_session";

// Reads the first unsigned decimal number of the file into `sessionId`; true when one was read.
// On failure `sessionId` is left as it was.
bool GetCurSession(unsigned long& sessionId);

// Replaces the file with one holding `sessionId` in decimal (no newline), 0 included. The new file
// is written beside the old one and renamed over it, so a reader never sees it half-written.
void SetCurSession(unsigned long sessionId);
