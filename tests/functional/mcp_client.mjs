// A real MCP client for the end-to-end test: it starts
// `tolvanger-service mcp --client claude` through the official TypeScript
// SDK, lists the tools, makes the tool calls it is given in order, and prints
// one JSON object with everything the server answered.
//
//   node mcp_client.mjs <service binary> <home> <calls as JSON>
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";

const [bin, home, callsJSON] = process.argv.slice(2);
const transport = new StdioClientTransport({
  command: bin,
  args: ["mcp", "--client", "claude"],
  env: { TOLVANGER_HOME: home },
  stderr: "inherit",
});
const client = new Client({ name: "tolvanger-e2e", version: "1.0.0" });
await client.connect(transport);

const out = {
  server: client.getServerVersion(),
  tools: (await client.listTools()).tools,
  results: [],
};
for (const call of JSON.parse(callsJSON)) {
  // A call blocks until the person answers on the phone.
  out.results.push(
    await client.callTool(call, undefined, { timeout: 120000 }),
  );
}
await client.close();
process.stdout.write(JSON.stringify(out) + "\n");
