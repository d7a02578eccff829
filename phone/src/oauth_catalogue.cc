#include "tolvanger/phone/oauth_catalogue.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/phone_home.h"

namespace tolvanger::phone {
namespace {

using Methods = std::vector<std::string>;

const Methods kRead = {"GET"};
const Methods kAll = {"GET", "POST", "PUT", "PATCH", "DELETE"};
const Methods kWrite = {"POST", "PUT", "PATCH", "DELETE"};
const Methods kPost = {"POST"};

AccessRule rule(std::vector<std::string> hosts, Methods methods,
                std::vector<std::string> paths = {}) {
  return AccessRule{std::move(hosts), std::move(methods), std::move(paths)};
}

Ability ability(std::string id, std::string name, std::string about,
                std::vector<std::string> scopes,
                std::vector<AccessRule> rules) {
  return Ability{std::move(id), std::move(name), std::move(about),
                 std::move(scopes), std::move(rules)};
}

Redirect tolvangerScheme() {
  return Redirect{Redirect::Kind::kScheme, "tolvanger"};
}

const std::string kGmail = "https://www.googleapis.com/auth/gmail.modify";

std::vector<OAuthProvider> makeProviders() {
  std::vector<OAuthProvider> all;

  OAuthProvider google;
  google.id = "google";
  google.name = "Google";
  google.authorizationURL = "https://{auth}/o/oauth2/v2/auth";
  google.tokenURL = "https://{token}/token";
  google.abilities = {
      ability("mail.read", "Read mail", "Search and read your Gmail.", {kGmail},
              {rule({"{api}"}, kRead, {"/gmail/"})}),
      ability("mail.send", "Send mail", "Write drafts and send email as you.",
              {kGmail},
              {rule({"{api}"}, kPost,
                    {"/gmail/v1/users/me/messages/send",
                     "/upload/gmail/v1/users/me/messages/send",
                     "/gmail/v1/users/me/drafts",
                     "/upload/gmail/v1/users/me/drafts"}),
               rule({"{api}"}, {"PUT", "DELETE"},
                    {"/gmail/v1/users/me/drafts/*",
                     "/upload/gmail/v1/users/me/drafts/*"})}),
      ability("mail.organize", "Organize mail",
              "Label, archive and trash messages and threads. Nothing is "
              "deleted for good.",
              {kGmail},
              {rule({"{api}"}, kPost,
                    {"/gmail/v1/users/me/messages/*/modify",
                     "/gmail/v1/users/me/messages/*/trash",
                     "/gmail/v1/users/me/messages/*/untrash",
                     "/gmail/v1/users/me/messages/batchModify",
                     "/gmail/v1/users/me/threads/*/modify",
                     "/gmail/v1/users/me/threads/*/trash",
                     "/gmail/v1/users/me/threads/*/untrash",
                     "/gmail/v1/users/me/labels"})}),
      ability("calendar", "Calendar",
              "Read and change your calendars and events.",
              {"https://www.googleapis.com/auth/calendar"},
              {rule({"{api}"}, kAll, {"/calendar/"})}),
      ability("drive", "Drive files",
              "Find, read, create and change files in your Drive, including "
              "Sheets and Docs.",
              {"https://www.googleapis.com/auth/drive"},
              {rule({"{api}"}, kAll, {"/drive/", "/upload/drive/"}),
               rule({"{sheets}", "{docs}"}, kAll)}),
  };
  google.authorizationExtras = {{"access_type", "offline"},
                                {"prompt", "consent"}};
  google.redirect = Redirect{Redirect::Kind::kReversedClientID, ""};
  google.symbol = "envelope";
  all.push_back(std::move(google));

  OAuthProvider github;
  github.id = "github";
  github.name = "GitHub";
  github.authorizationURL = "https://{auth}/login/oauth/authorize";
  github.tokenURL = "https://{token}/login/oauth/access_token";
  github.abilities = {
      ability("repos.read", "Read repositories",
              "Read code, issues and pull requests, private ones too.",
              {"repo", "read:org"}, {rule({"{api}"}, kRead)}),
      ability("repos.write", "Write to repositories",
              "Open and change issues and pull requests, comment, push, and "
              "upload release files.",
              {"repo", "workflow"},
              {rule({"{api}"}, {"GET", "POST", "PUT", "PATCH"}),
               rule({"{upload}"}, kPost)}),
      ability("repos.delete", "Delete repositories",
              "Delete repositories you own. Rarely worth allowing.",
              {"delete_repo"}, {rule({"{api}"}, {"DELETE"}, {"/repos/"})}),
      ability("profile", "Who you are", "Your profile and email address.",
              {"read:user", "user:email"}, {rule({"{api}"}, kRead, {"/user"})}),
  };
  github.redirect = tolvangerScheme();
  github.grant =
      Grant{Grant::Kind::kDevice, "https://{auth}/login/device/code"};
  github.symbol = "chevron.left.forwardslash.chevron.right";
  all.push_back(std::move(github));

  OAuthProvider microsoft;
  microsoft.id = "microsoft";
  microsoft.name = "Microsoft 365";
  microsoft.authorizationURL = "https://{auth}/common/oauth2/v2.0/authorize";
  microsoft.tokenURL = "https://{token}/common/oauth2/v2.0/token";
  microsoft.baseScopes = {"offline_access", "User.Read"};
  microsoft.abilities = {
      ability("profile", "Who you are", "Your name and account.", {"User.Read"},
              {rule({"{api}"}, kRead, {"/v1.0/me"})}),
      ability("mail.read", "Read mail", "Search and read your Outlook mail.",
              {"Mail.Read"},
              {rule({"{api}"}, kRead,
                    {"/v1.0/me/messages", "/v1.0/me/mailFolders"})}),
      ability(
          "mail.send", "Send mail", "Send email as you.", {"Mail.Send"},
          {rule({"{api}"}, kPost, {"/v1.0/me/sendMail", "/v1.0/me/messages"})}),
      ability("calendar", "Calendar",
              "Read and change your calendars and events.",
              {"Calendars.ReadWrite"},
              {rule({"{api}"}, kAll,
                    {"/v1.0/me/calendar", "/v1.0/me/calendars",
                     "/v1.0/me/calendarView", "/v1.0/me/events"})}),
      ability("files", "OneDrive files",
              "Read and change files in your "
              "OneDrive.",
              {"Files.ReadWrite"}, {rule({"{api}"}, kAll)}),
  };
  microsoft.redirect = tolvangerScheme();
  microsoft.symbol = "envelope.badge";
  all.push_back(std::move(microsoft));

  OAuthProvider dropbox;
  dropbox.id = "dropbox";
  dropbox.name = "Dropbox";
  dropbox.authorizationURL = "https://{auth}/oauth2/authorize";
  dropbox.tokenURL = "https://{token}/oauth2/token";
  dropbox.abilities = {
      ability("read", "Read files", "List, search and download your files.",
              {"files.metadata.read", "files.content.read"},
              {rule({"{api}"}, kPost,
                    {"/2/files/list_folder", "/2/files/get_metadata",
                     "/2/files/search_v2", "/2/files/get_temporary_link"}),
               rule({"{content}"}, kPost, {"/2/files/download"})}),
      ability("write", "Write files",
              "Upload, move, copy and delete files and folders.",
              {"files.content.write"},
              {rule({"{api}"}, kPost,
                    {"/2/files/create_folder_v2", "/2/files/move_v2",
                     "/2/files/copy_v2", "/2/files/delete_v2"}),
               rule({"{content}"}, kPost,
                    {"/2/files/upload", "/2/files/upload_session"})}),
  };
  dropbox.authorizationExtras = {{"token_access_type", "offline"}};
  dropbox.redirect = tolvangerScheme();
  dropbox.symbol = "shippingbox";
  all.push_back(std::move(dropbox));

  OAuthProvider gitlab;
  gitlab.id = "gitlab";
  gitlab.name = "GitLab";
  gitlab.authorizationURL = "https://{auth}/oauth/authorize";
  gitlab.tokenURL = "https://{token}/oauth/token";
  gitlab.abilities = {
      ability("read", "Read projects",
              "Read projects, issues, merge requests and code.",
              {"read_api", "read_user", "read_repository"},
              {rule({"{api}"}, kRead, {"/api/"})}),
      ability("write", "Write to projects",
              "Open and change issues and merge requests, and push.",
              {"api", "write_repository"}, {rule({"{api}"}, kAll)}),
  };
  gitlab.redirect = tolvangerScheme();
  gitlab.symbol = "arrow.triangle.branch";
  all.push_back(std::move(gitlab));

  OAuthProvider reddit;
  reddit.id = "reddit";
  reddit.name = "Reddit";
  reddit.authorizationURL = "https://{auth}/api/v1/authorize";
  reddit.tokenURL = "https://{token}/api/v1/access_token";
  reddit.abilities = {
      ability("read", "Read", "Your identity, your feeds and any public post.",
              {"identity", "read"}, {rule({"{api}"}, kRead)}),
      ability("post", "Post and comment", "Submit posts and comments as you.",
              {"submit"},
              {rule({"{api}"}, kPost, {"/api/submit", "/api/comment"})}),
      ability("messages", "Private messages", "Read and send private messages.",
              {"privatemessages"}, {rule({"{api}"}, kAll)}),
  };
  reddit.authorizationExtras = {{"duration", "permanent"}};
  reddit.redirect = tolvangerScheme();
  reddit.clientAuth = ClientAuth::kBasic;
  reddit.symbol = "text.bubble";
  all.push_back(std::move(reddit));

  OAuthProvider spotify;
  spotify.id = "spotify";
  spotify.name = "Spotify";
  spotify.authorizationURL = "https://{auth}/authorize";
  spotify.tokenURL = "https://{token}/api/token";
  spotify.abilities = {
      ability(
          "read", "Read your library",
          "Your profile, saved music and private playlists.",
          {"user-read-private", "user-library-read", "playlist-read-private"},
          {rule({"{api}"}, kRead, {"/v1/"})}),
      ability("write", "Change your library",
              "Save and remove music, and edit private playlists.",
              {"user-library-modify", "playlist-modify-private"},
              {rule({"{api}"}, kAll)}),
  };
  spotify.redirect = tolvangerScheme();
  spotify.symbol = "music.note";
  all.push_back(std::move(spotify));

  OAuthProvider discord;
  discord.id = "discord";
  discord.name = "Discord";
  discord.authorizationURL = "https://{auth}/oauth2/authorize";
  discord.tokenURL = "https://{token}/api/oauth2/token";
  discord.abilities = {
      ability(
          "profile", "Who you are", "Your username and avatar.", {"identify"},
          {rule({"{api}"}, kRead, {"/api/users/@me", "/api/v10/users/@me"})}),
      ability("guilds", "Your servers", "Which servers you are in.", {"guilds"},
              {rule({"{api}"}, kRead,
                    {"/api/users/@me/guilds", "/api/v10/users/@me/guilds"})}),
      ability("connections", "Linked accounts",
              "The accounts you have linked to Discord.", {"connections"},
              {rule({"{api}"}, kRead,
                    {"/api/users/@me/connections",
                     "/api/v10/users/@me/connections"})}),
  };
  discord.redirect = tolvangerScheme();
  discord.symbol = "bubble.left.and.bubble.right";
  all.push_back(std::move(discord));
  return all;
}

TokenPreset preset(std::string id, std::string name, std::string symbol,
                   std::string page, std::string kind, std::string instruction,
                   std::vector<Ability> abilities) {
  TokenPreset p;
  p.id = std::move(id);
  p.name = std::move(name);
  p.symbol = std::move(symbol);
  p.tokenPage = std::move(page);
  p.kind = std::move(kind);
  p.instruction = std::move(instruction);
  p.abilities = std::move(abilities);
  return p;
}

std::vector<TokenPreset> makePresets() {
  std::vector<TokenPreset> all;
  TokenPreset jira = preset(
      "jira", "Jira", "checklist",
      "https://{page}/manage-profile/security/api-tokens", "basic",
      "Create an API token and copy it. Jira also needs the email of your "
      "Atlassian account and the name of your site.",
      {ability("read", "Read issues and boards",
               "Search and read projects, issues, boards and sprints.", {},
               {rule({"{site}"}, kRead,
                     {"/rest/api/3/search", "/rest/api/3/issue/",
                      "/rest/api/3/project", "/rest/api/3/myself",
                      "/rest/agile/1.0/"})}),
       ability("write", "Change issues",
               "Create, edit, transition and comment on issues.", {},
               {rule({"{site}"}, kWrite, {"/rest/api/3/issue"})})});
  jira.emailLabel = "Atlassian account email";
  jira.host = TokenPreset::Host{TokenPreset::Host::Kind::kSite, ".{suffix}",
                                "Site name"};
  all.push_back(std::move(jira));
  all.push_back(preset(
      "slack", "Slack", "number", "https://{page}/apps", "bearer",
      "Create an app, add the user scopes you want under OAuth & "
      "Permissions, install it to your workspace, and copy the User OAuth "
      "Token that begins with xoxp-.",
      {ability("read", "Read",
               "Channels, messages, people and files you can "
               "see.",
               {}, {rule({"{api}"}, kRead)}),
       ability("post", "Post as you",
               "Send, edit and delete messages, and add reactions.", {},
               {rule({"{api}"}, kPost,
                     {"/api/chat.postMessage", "/api/chat.update",
                      "/api/chat.delete", "/api/reactions.add",
                      "/api/chat.scheduleMessage"})})}));
  all.push_back(preset(
      "notion", "Notion", "doc.text", "https://{page}/my-integrations",
      "bearer",
      "Create an internal integration, copy its secret, and share the pages "
      "it may see with it from each page's menu.",
      {ability(
           "read", "Read pages and databases",
           "Search, read pages and blocks, query databases.", {},
           {rule({"{api}"}, kRead),
            rule({"{api}"}, kPost, {"/v1/search", "/v1/databases/*/query"})}),
       ability("write", "Write pages",
               "Create and change pages, blocks, databases and comments.", {},
               {rule({"{api}"}, kWrite)})}));
  all.push_back(preset(
      "linear", "Linear", "line.diagonal", "https://{page}/settings/api",
      "api_key", "Under Personal API keys, create a key and copy it.",
      {ability("all", "Read and change issues",
               "Everything the key can do: Linear has one endpoint for all "
               "of it.",
               {}, {rule({"{api}"}, kPost, {"/graphql"})})}));
  all.push_back(preset(
      "stripe", "Stripe", "creditcard", "https://{page}/apikeys", "bearer",
      "Create a restricted key with only the permissions you want, and copy "
      "it. A secret key works too, but it can do everything.",
      {ability("read", "Read", "Customers, payments, invoices and balances.",
               {}, {rule({"{api}"}, kRead)}),
       ability("write", "Change and charge",
               "Create and change customers, invoices, payments and refunds.",
               {}, {rule({"{api}"}, kWrite)})}));
  all.push_back(preset(
      "cloudflare", "Cloudflare", "cloud", "https://{page}/profile/api-tokens",
      "bearer",
      "Create a token from a template or with the permissions you want, and "
      "copy it.",
      {ability("read", "Read", "Zones, DNS records, settings and analytics.",
               {}, {rule({"{api}"}, kRead)}),
       ability("write", "Change", "Change DNS records, rules and settings.", {},
               {rule({"{api}"}, kWrite)})}));
  all.push_back(preset(
      "vercel", "Vercel", "triangle", "https://{page}/account/tokens", "bearer",
      "Create a token, scoped to one team if you like, and copy it.",
      {ability("read", "Read", "Projects, deployments, domains and logs.", {},
               {rule({"{api}"}, kRead)}),
       ability("write", "Deploy and change",
               "Create deployments, change projects, domains and variables.",
               {}, {rule({"{api}"}, kAll)})}));
  return all;
}

// A host as the deployment may give it: lower-case letters, digits, "-" and
// "." and an optional ":port".
bool plainHost(std::string_view host) {
  if (host.empty() || host.size() > 253) return false;
  const size_t colon = host.find(':');
  const std::string_view name = host.substr(0, colon);
  if (name.empty() || name.front() == '.' || name.front() == '-') return false;
  for (const char c : name) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
          c == '.')) {
      return false;
    }
  }
  if (colon == std::string_view::npos) return true;
  const std::string_view port = host.substr(colon + 1);
  if (port.empty() || port.size() > 5 || port.front() == '0') return false;
  return std::all_of(port.begin(), port.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

// `text` with every "{role}" replaced by its host. Throws Refusal naming
// `what` and the role when the deployment gives none.
std::string fill(std::string_view text,
                 const std::map<std::string, std::string>& hosts,
                 std::string_view what) {
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    const size_t open = text.find('{', at);
    if (open == std::string_view::npos) break;
    const size_t close = text.find('}', open);
    if (close == std::string_view::npos) break;
    out.append(text.substr(at, open - at));
    const std::string role(text.substr(open + 1, close - open - 1));
    auto it = hosts.find(role);
    if (it == hosts.end() && role == "token") it = hosts.find("auth");
    if (it == hosts.end()) {
      throw Refusal("The OAuth configuration names no " + role + " host for " +
                    std::string(what) + ".");
    }
    out += it->second;
    at = close + 1;
  }
  out.append(text.substr(at));
  return out;
}

std::vector<Ability> fillAbilities(
    std::vector<Ability> abilities,
    const std::map<std::string, std::string>& hosts, std::string_view what) {
  for (Ability& a : abilities) {
    for (AccessRule& r : a.rules) {
      for (std::string& host : r.hosts) {
        // A site's host is the person's to give, when the credential is made.
        if (host != "{site}") host = fill(host, hosts, what);
      }
    }
  }
  return abilities;
}

}  // namespace

std::string Redirect::uri(std::string_view clientID,
                          std::string_view providerID) const {
  if (kind == Kind::kScheme) {
    return scheme + "://oauth/" + std::string(providerID);
  }
  return schemeFor(clientID) + ":/oauth2redirect";
}

std::string Redirect::schemeFor(std::string_view clientID) const {
  if (kind == Kind::kScheme) return scheme;
  constexpr std::string_view kSuffix = ".apps.googleusercontent.com";
  std::string_view id = clientID;
  if (id.ends_with(kSuffix)) id.remove_suffix(kSuffix.size());
  return std::string(kGooglePrefix) + std::string(id);
}

const std::vector<OAuthProvider>& OAuthProvider::all() {
  static const std::vector<OAuthProvider> providers = makeProviders();
  return providers;
}

const OAuthProvider* OAuthProvider::named(std::string_view id) {
  for (const OAuthProvider& p : all()) {
    if (p.id == id) return &p;
  }
  return nullptr;
}

std::vector<std::string> OAuthProvider::scopes(
    const std::vector<Ability>& chosen) const {
  std::vector<std::string> out;
  auto add = [&out](const std::string& scope) {
    if (std::find(out.begin(), out.end(), scope) == out.end()) {
      out.push_back(scope);
    }
  };
  for (const std::string& s : baseScopes) add(s);
  for (const Ability& a : chosen) {
    for (const std::string& s : a.scopes) add(s);
  }
  return out;
}

const Ability* OAuthProvider::ability(std::string_view abilityID) const {
  for (const Ability& a : abilities) {
    if (a.id == abilityID) return &a;
  }
  return nullptr;
}

const std::vector<TokenPreset>& TokenPreset::all() {
  static const std::vector<TokenPreset> presets = makePresets();
  return presets;
}

const TokenPreset* TokenPreset::named(std::string_view id) {
  for (const TokenPreset& p : all()) {
    if (p.id == id) return &p;
  }
  return nullptr;
}

std::vector<Ability> TokenPreset::abilitiesFor(std::string_view site) const {
  std::vector<Ability> out = abilities;
  if (host.kind != Host::Kind::kSite) return out;
  const bool label =
      !site.empty() && site.size() <= 63 && site.front() != '-' &&
      site.back() != '-' && std::all_of(site.begin(), site.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
      });
  if (!label) {
    throw Refusal("\"" + std::string(site) +
                  "\" is not a site name: use lower-case letters, digits and "
                  "\"-\".");
  }
  for (Ability& a : out) {
    for (AccessRule& r : a.rules) {
      for (std::string& h : r.hosts) {
        if (h == "{site}") h = std::string(site) + host.suffix;
      }
    }
  }
  return out;
}

OAuthDeployment OAuthDeployment::parse(std::string_view text) {
  const nlohmann::json root = PhoneJSON::parseObject(text);
  if (!root.is_object()) {
    throw Refusal("The OAuth configuration is not a JSON object.");
  }
  OAuthDeployment deployment;
  auto readEntries = [](const nlohmann::json& root, const char* key,
                        std::map<std::string, Entry, std::less<>>& into) {
    const auto section = root.find(key);
    if (section == root.end()) return;
    if (!section->is_object()) {
      throw Refusal(std::string("The OAuth configuration's ") + key +
                    " is not an object.");
    }
    for (const auto& [id, value] : section->items()) {
      if (!value.is_object()) {
        throw Refusal("The OAuth configuration's entry for " + id +
                      " is not an object.");
      }
      Entry entry;
      if (const auto client = value.find("client_id"); client != value.end()) {
        if (!client->is_string() || client->get<std::string>().empty()) {
          throw Refusal("The OAuth configuration's client_id for " + id +
                        " is not text.");
        }
        entry.clientID = client->get<std::string>();
      }
      if (const auto hosts = value.find("hosts"); hosts != value.end()) {
        if (!hosts->is_object()) {
          throw Refusal("The OAuth configuration's hosts for " + id +
                        " are not an object.");
        }
        for (const auto& [role, host] : hosts->items()) {
          if (!host.is_string() || !plainHost(host.get<std::string>())) {
            throw Refusal("The OAuth configuration's " + role + " host for " +
                          id +
                          " is not a lower-case host name with an optional "
                          "port.");
          }
          entry.hosts[role] = host.get<std::string>();
        }
      }
      into[id] = std::move(entry);
    }
  };
  readEntries(root, "providers", deployment.providers_);
  readEntries(root, "presets", deployment.presets_);
  if (const auto ca = root.find("ca_file"); ca != root.end()) {
    if (!ca->is_string()) {
      throw Refusal("The OAuth configuration's ca_file is not text.");
    }
    deployment.caFile_ = ca->get<std::string>();
  }
  return deployment;
}

OAuthDeployment OAuthDeployment::load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return OAuthDeployment();
  std::string text;
  text.resize(kMaxFile + 1);
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() > kMaxFile) {
    throw Refusal("The OAuth configuration " + path + " is too large.");
  }
  return parse(text);
}

OAuthProvider OAuthDeployment::provider(std::string_view id) const {
  const OAuthProvider* base = OAuthProvider::named(id);
  if (!base) {
    throw Refusal("There is no provider called " + std::string(id) + ".");
  }
  const auto entry = providers_.find(id);
  if (entry == providers_.end()) {
    throw Refusal("The OAuth configuration does not set up " + base->name +
                  ".");
  }
  const auto& hosts = entry->second.hosts;
  OAuthProvider p = *base;
  p.authorizationURL = fill(p.authorizationURL, hosts, p.name);
  p.tokenURL = fill(p.tokenURL, hosts, p.name);
  if (!p.grant.deviceURL.empty()) {
    p.grant.deviceURL = fill(p.grant.deviceURL, hosts, p.name);
  }
  p.abilities = fillAbilities(std::move(p.abilities), hosts, p.name);
  return p;
}

std::string OAuthDeployment::clientID(std::string_view id) const {
  const auto entry = providers_.find(id);
  if (entry == providers_.end() || !entry->second.clientID) {
    throw Refusal("The OAuth configuration names no client_id for " +
                  std::string(id) + ".");
  }
  return *entry->second.clientID;
}

TokenPreset OAuthDeployment::preset(std::string_view id) const {
  const TokenPreset* base = TokenPreset::named(id);
  if (!base) {
    throw Refusal("There is no token preset called " + std::string(id) + ".");
  }
  const auto entry = presets_.find(id);
  if (entry == presets_.end()) {
    throw Refusal("The OAuth configuration does not set up " + base->name +
                  ".");
  }
  const auto& hosts = entry->second.hosts;
  TokenPreset p = *base;
  p.tokenPage = fill(p.tokenPage, hosts, p.name);
  if (p.host.kind == TokenPreset::Host::Kind::kSite) {
    p.host.suffix = fill(p.host.suffix, hosts, p.name);
  }
  p.abilities = fillAbilities(std::move(p.abilities), hosts, p.name);
  return p;
}

}  // namespace tolvanger::phone
