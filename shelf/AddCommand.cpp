#include "shelf/AddCommand.h"

#include <curl/curl.h>

#include <iostream>

#include <nlohmann/json.hpp>

#include "shelf/host/AccessToken.h"
#include "shelf/host/ServerInfo.h"

namespace {

struct Reply {
  long status = 0;
  std::string body;
  std::string error;
};

Reply post(const std::string& url, const std::string& body, const std::optional<std::string>& token) {
  Reply reply;
  CURL* curl = curl_easy_init();
  if (!curl) return {0, "", "cannot start libcurl"};
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  if (token) headers = curl_slist_append(headers, ("Authorization: Bearer " + *token).c_str());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http");
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  });
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
  CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) reply.error = curl_easy_strerror(code);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return reply;
}

}  // namespace

int runAdd(const AddOptions& options) {
  auto layout = shelfkit::RootLayout::resolve(options.root, std::nullopt);
  // Only the root's lock says that its host runs: the note of one that ended may
  // name a port that another program has taken since, and the token must not go there.
  if (!shelfkit::RootLock::isHeld(layout)) {
    std::cerr << "shelf: no shelf is running with the root " << layout.root << "; start one with `shelf serve`\n";
    return 2;
  }
  auto server = shelf::readServerInfo(layout);
  if (!server) {
    std::cerr << "shelf: the shelf running with the root " << layout.root
              << " left no readable address in Library/Server.json\n";
    return 2;
  }
  // The API is reached where the host listens; the token goes along when the host made one.
  const std::string api = shelf::localBaseURL(*server) + "/api/downloads";
  const auto token = shelf::existingAccessToken(layout);
  int status = 0;
  for (const auto& url : options.urls) {
    nlohmann::json body = {{"url", url}};
    if (!options.permittedMIMETypes.empty()) body["permittedMIMETypes"] = options.permittedMIMETypes;
    Reply reply = post(api, body.dump(), token);
    auto json = nlohmann::json::parse(reply.body, nullptr, false);
    if (!reply.error.empty()) {
      std::cerr << "shelf: cannot reach the shelf at " << server->url << ": " << reply.error << "\n";
      return 2;
    }
    if (reply.status == 201 && json.is_object() && json.contains("download")) {
      const auto& name = json["download"]["outputFilename"];
      std::cout << "queued " << (name.is_string() ? name.get<std::string>() : url) << "\n";
    } else {
      std::string message = json.is_object() && json.contains("error") && json["error"].is_string()
                                ? json["error"].get<std::string>()
                                : "HTTP " + std::to_string(reply.status);
      std::cerr << "shelf: " << url << ": " << message << "\n";
      status = std::max(status, reply.status == 400 ? 2 : 1);
    }
  }
  return status;
}
