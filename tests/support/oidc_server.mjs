// A real OAuth authorisation server for the tests, on loopback over HTTPS.
//
//   node oidc_server.mjs <cert.pem> <key.pem>
//
// Runs oidc-provider (NODE_PATH must reach the folder that holds it) with two
// public test clients that use PKCE, refresh tokens and the device grant:
// "tolvanger-keeping" gets no new refresh token on refresh, and
// "tolvanger-rotating" gets a new one each time (the old one then fails with
// invalid_grant). The person is played by /interaction/<uid>, which logs in
// "alice" and grants what was asked without a page. The provider's own paths
// are also reachable under the paths of the catalogue's providers, so a
// flow built for them works unchanged. Prints "listening <port>" once ready
// and runs until killed.
import fs from 'node:fs';
import https from 'node:https';
import { createRequire } from 'node:module';

const require = createRequire(import.meta.url);
const { default: Provider } = await import(require.resolve('oidc-provider', {
  paths: (process.env.NODE_PATH || '').split(':'),
}));

const [certPath, keyPath] = process.argv.slice(2);
const server = https.createServer({
  cert: fs.readFileSync(certPath),
  key: fs.readFileSync(keyPath),
});
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const { port } = server.address();

const grants = ['authorization_code', 'refresh_token',
  'urn:ietf:params:oauth:grant-type:device_code'];
const client = (id) => ({
  client_id: id,
  token_endpoint_auth_method: 'none',
  application_type: 'native',
  grant_types: grants,
  response_types: ['code'],
  redirect_uris: ['tolvanger://oauth/gitlab', 'tolvanger://oauth/github'],
});

const provider = new Provider(`https://localhost:${port}`, {
  clients: [client('tolvanger-keeping'), client('tolvanger-rotating')],
  features: {
    devInteractions: { enabled: false },
    deviceFlow: { enabled: true },
  },
  pkce: { required: () => true },
  scopes: ['openid', 'offline_access', 'read_api', 'read_user',
    'read_repository', 'api', 'write_repository', 'repo', 'read:org',
    'workflow', 'read:user', 'user:email'],
  issueRefreshToken: async () => true,
  rotateRefreshToken: (ctx) => ctx.oidc.client.clientId === 'tolvanger-rotating',
  findAccount: async (ctx, sub) => ({ accountId: sub, claims: async () => ({ sub }) }),
  interactions: { url: (ctx, interaction) => `/interaction/${interaction.uid}` },
  cookies: { keys: ['tolvanger-test-cookie-key'] },
  ttl: { AccessToken: 3600, DeviceCode: 600, RefreshToken: 86400, Grant: 86400 },
});
provider.proxy = false;

// Logs in alice and grants whatever is missing, with no page in between.
async function interact(req, res) {
  const details = await provider.interactionDetails(req, res);
  const { prompt, params, session } = details;
  if (prompt.name === 'login') {
    await provider.interactionFinished(req, res, { login: { accountId: 'alice' } },
      { mergeWithLastSubmission: false });
    return;
  }
  const grant = details.grantId
    ? await provider.Grant.find(details.grantId)
    : new provider.Grant({ accountId: session.accountId, clientId: params.client_id });
  const missing = prompt.details;
  if (missing.missingOIDCScope) grant.addOIDCScope(missing.missingOIDCScope.join(' '));
  if (missing.missingOIDCClaims) grant.addOIDCClaims(missing.missingOIDCClaims);
  if (missing.missingResourceScopes) {
    for (const [indicator, scopes] of Object.entries(missing.missingResourceScopes)) {
      grant.addResourceScope(indicator, scopes.join(' '));
    }
  }
  const grantId = await grant.save();
  await provider.interactionFinished(req, res, { consent: { grantId } },
    { mergeWithLastSubmission: true });
}

// The catalogue's paths, mapped onto the provider's own.
const aliases = new Map([
  ['/oauth/authorize', '/auth'],
  ['/oauth/token', '/token'],
  ['/login/oauth/authorize', '/auth'],
  ['/login/oauth/access_token', '/token'],
  ['/login/device/code', '/device/auth'],
]);
const callback = provider.callback();
server.on('request', (req, res) => {
  const [path, query] = req.url.split(/\?(.*)/s);
  if (aliases.has(path)) req.url = aliases.get(path) + (query !== undefined ? `?${query}` : '');
  if (path.startsWith('/interaction/')) {
    interact(req, res).catch((error) => {
      res.statusCode = 500;
      res.end(String(error));
    });
    return;
  }
  callback(req, res);
});
process.stdout.write(`listening ${port}\n`);
