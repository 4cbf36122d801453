// Snapshot of a frozen version of the interface, taken by the build's API freeze. Never edit it:
// devices already shipped against this version. Change the sources and freeze a new version.

package vendor.velora.hardware.tidewatch;
@VintfStability
interface ITidewatchService {
  byte[] sendCommand(in byte[] request);
  void registerTrapCallback(in String destination, in vendor.velora.hardware.tidewatch.ITidewatchClientCallback callback);
}
