#include "capture/extcap_listing.h"

#include "libtidewatch/pcapng/pcapng_format.h"

namespace capture {
namespace {

constexpr char kExtcapVersion[] = "1.0";
constexpr char kPhonePrefix[] = "tidewatch-";

// Selections get no default: Wireshark passes every default value on the capture's command line,
// and an empty selection must stay absent rather than become a pattern.
constexpr char kCommonArgs[] =
    "arg {number=0}{call=--ota}{display=OTA messages}{type=string}"
    "{tooltip=OTA messages: ids, layout names or shell patterns, comma separated}"
    "{placeholder=LTE_RRC_*}{group=Messages}\n"
    "arg {number=1}{call=--em}{display=EM messages}{type=string}"
    "{tooltip=EM messages: ids, layout names or shell patterns, comma separated}"
    "{placeholder=EM_LTE_*}{group=Messages}\n";

constexpr char kLocalLayout[] =
    "arg {number=2}{call=--layout}{display=Layout file}{type=fileselect}{mustexist=true}"
    "{tooltip=Layout description file that names the messages (default: the system's)}"
    "{group=Messages}\n";

constexpr char kPhoneLayout[] =
    "arg {number=2}{call=--layout}{display=Layout file on the phone}{type=string}"
    "{tooltip=Path of the layout description file on the phone (default: the system's)}"
    "{group=Messages}\n";

constexpr char kSessionArgs[] =
    "arg {number=3}{call=--secret}{display=Secret}{type=password}"
    "{tooltip=Secret for a manager or root session}{group=Session}\n"
    "arg {number=4}{call=--session}{display=Existing session}{type=string}"
    "{tooltip=Capture on this existing session instead of creating one, and leave it open}"
    "{validation=^[0-9]*$}{group=Session}\n";

constexpr char kPhoneArgs[] =
    "arg {number=5}{call=--su}{display=Run through su}{type=boolflag}{default=false}"
    "{tooltip=Run the capture tool as root, where the phone's build needs it to reach the "
    "service}{group=Phone}\n"
    "arg {number=6}{call=--phone-tool}{display=Capture tool on the phone}{type=string}"
    "{default=tide_watch_capture}{tooltip=Name or path of tide_watch_capture on the phone}"
    "{group=Phone}\n";

}  // namespace

InterfaceKind ClassifyInterface(const std::string& interface, std::string* serial) {
  if (interface == kLocalInterface) return InterfaceKind::kLocal;
  const std::string prefix = kPhonePrefix;
  if (interface.size() > prefix.size() && interface.compare(0, prefix.size(), prefix) == 0) {
    *serial = interface.substr(prefix.size());
    return InterfaceKind::kPhone;
  }
  return InterfaceKind::kUnknown;
}

std::string InterfacesText(const std::vector<std::string>& serials) {
  std::string text = std::string("extcap {version=") + kExtcapVersion +
                     "}{help=https://www.wireshark.org/docs/man-pages/extcap.html}\n";
  text += std::string("interface {value=") + kLocalInterface + "}{display=Modem traps}\n";
  for (const std::string& serial : serials) {
    text += "interface {value=" + std::string(kPhonePrefix) + serial +
            "}{display=Modem traps on phone " + serial + "}\n";
  }
  return text;
}

std::string DltsText(const std::string& interface) {
  (void)interface;  // every interface carries the same records
  return "dlt {number=" + std::to_string(libtidewatch::pcapng::kLinkType) +
         "}{name=USER15}{display=Modem traps}\n";
}

std::string ConfigText(InterfaceKind kind) {
  std::string text = kCommonArgs;
  text += kind == InterfaceKind::kPhone ? kPhoneLayout : kLocalLayout;
  text += kSessionArgs;
  if (kind == InterfaceKind::kPhone) text += kPhoneArgs;
  return text;
}

}  // namespace capture
