// Snapshot of the interface as the sources define it now; the build checks that the sources still
// match it. Refresh it with the build's API update after a compatible change.

package vendor.velora.hardware.tidewatch;
@VintfStability
interface ITidewatchService {
  byte[] sendCommand(in byte[] request);
  void registerTrapCallback(in String destination, in vendor.velora.hardware.tidewatch.ITidewatchClientCallback callback);
}
