/*
 * The modem-monitor HAL service: carries MCP command packets to the modem monitor and hands the
 * traps of a monitor session to the callback registered under the session's destination name.
 */

package vendor.velora.hardware.tidewatch;

import vendor.velora.hardware.tidewatch.ITidewatchClientCallback;

@VintfStability
interface ITidewatchService {
    /**
     * Executes one command.
     *
     * @param request one MCP packet of type command, framed: 10-byte little-endian header
     *     followed by a JSON text payload.
     * @return the MCP reply packet, framed the same way; empty when the service has nothing to
     *     answer.
     */
    byte[] sendCommand(in byte[] request);

    /**
     * Makes callback the receiver of the traps addressed to destination (a session id in decimal
     * followed by the client's server name). A later registration under the same name replaces
     * the earlier one.
     */
    void registerTrapCallback(in String destination, in ITidewatchClientCallback callback);
}
