// The sentences of the extcap protocol that describe this tool to Wireshark: its interfaces (the
// local service, and one per phone adb sees), their link type, and the configuration each offers,
// which Wireshark shows as a dialog and as preferences extcap.<interface>.<argument>.
#pragma once

#include <string>
#include <vector>

namespace capture {

constexpr char kLocalInterface[] = "tidewatch";

// The interface is the local one, a phone's ("tidewatch-<serial>": `*serial` set) or neither.
enum class InterfaceKind { kLocal, kPhone, kUnknown };
InterfaceKind ClassifyInterface(const std::string& interface, std::string* serial);

// The answer to --extcap-interfaces: the tool's version line, then the local interface and one
// per phone serial.
std::string InterfacesText(const std::vector<std::string>& serials);
// The answer to --extcap-dlts: the link type the capture's pcapng carries.
std::string DltsText(const std::string& interface);
// The answer to --extcap-config: the capture options, with the tool's own names. A phone's layout
// is a path on the phone (text, not a file chooser), and it adds su and where the tool lies.
std::string ConfigText(InterfaceKind kind);

}  // namespace capture
