/*
 * Implemented by a client that receives traps: the service pushes one MCP packet per call.
 */

package vendor.velora.hardware.tidewatch;

@VintfStability
interface ITidewatchClientCallback {
    /**
     * Delivers one framed MCP packet (in practice a trap).
     *
     * @return true when the client had a receiver for the packet, false when it dropped it.
     */
    boolean MCPReceiver(in byte[] mcp);
}
