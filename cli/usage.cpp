#include <cstdio>

#include "cli/tide_watch_ctrl.h"

void long_help() {
  puts("Usage: tide_watch_ctrl");
  puts("\t--create-session [<level=0(guest,default)|1(manager)|2(root)>]");
  puts("\t--close-session [<doerId=x>] <sessionId=x>");
  puts("\t--subscribe-trap [<doerId=x>] <sessionId=x> <type=x> <msgId=x>");
  puts("\t--unsubscribe-trap [<doerId=x>] <sessionId=x> <type=x> <msgId=x>");
  puts("\t--enable-trap [<doerId=x>] <sessionId=x>");
  puts("\t--disable-trap [<doerId=x>] <sessionId=x>");
  puts("\t--set-trap-receiver [<doerId=x>] <sessionId=x> <servername=x>");
  puts("\t--run-trap-receiver <sessionId=x> <servername=x>");
  puts("\t--get-session [<doerId=x>] <sessionId=x>");
  puts("\t--list-session <doerId=x>");
  puts(
      "\t--set-debug-level <doerId=x> [level=1(raw data dumper)|2(verbose)|3(debug)|4(info)|"
      "5(warn)|6(error, default)|10(disable)]");
  puts("\t--help");
}
