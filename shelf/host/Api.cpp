#include "shelf/host/Api.h"

#include <chrono>

#include <nlohmann/json.hpp>

#include "module/platform/DownloadService.h"
#include "module/platform/Log.h"
#include "module/platform/RecentItems.h"
#include "module/platform/URL.h"
#include "shelf/host/DocumentFiles.h"
#include "shelf/host/DownloadActivity.h"
#include "shelf/host/HostScreens.h"

namespace shelf {
namespace {

using nlohmann::json;

HttpResponse answer(int status, const json& body) {
  HttpResponse response;
  response.status = status;
  response.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
  return response;
}

HttpResponse error(int status, const std::string& message) { return answer(status, {{"error", message}}); }

HttpResponse noContent() {
  HttpResponse response;
  response.status = 204;
  return response;
}

json jsonOf(const platform::DownloadItem& item) {
  auto optional = [](const auto& value) { return value ? json(*value) : json(nullptr); };
  std::optional<TransferEstimate> estimate;
  if (auto activity = DownloadActivity::sharedInstance()) estimate = activity->estimate(item, DownloadActivity::Clock::now());
  const double wallNow = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  return {{"bytesPerSecond", estimate ? json(estimate->bytesPerSecond) : json(nullptr)},
          {"secondsLeft", estimate ? optional(estimate->secondsLeft) : json(nullptr)},
          {"retryAt", item.retryDate && *item.retryDate > wallNow ? json(*item.retryDate) : json(nullptr)},
          {"uniqueId", item.uniqueId},
          {"url", item.url},
          {"filename", optional(item.filename)},
          {"outputFilename", optional(item.outputFilename)},
          {"size", item.size},
          {"position", item.position},
          {"actualPosition", item.actualPosition},
          {"priority", item.priority},
          {"active", item.active},
          {"inProgress", item.inProgress},
          {"partialDownloading", item.partialDownloading},
          {"retryDate", optional(item.retryDate)},
          {"lastError", optional(item.lastError)}};
}

json jsonOf(const platform::DownloadSettings& settings) {
  return {{"downloadsPermitted", settings.downloadsPermitted},
          {"useCellularData", settings.useCellularData},
          {"maxActiveDownloadCount", settings.maxActiveDownloadCount}};
}

void addDownload(platform::DownloadService& service, const HttpRequest& request,
                 std::function<void(HttpResponse)> respond) {
  const json body = json::parse(request.body, nullptr, false);
  if (!body.is_object() || !body.contains("url") || !body["url"].is_string())
    return respond(error(400, "expected {\"url\": \"http(s)://…\"}"));
  auto url = platform::URL::URLWithString(body["url"].get<std::string>());
  if (!url || (url->scheme() != "http" && url->scheme() != "https") || url->host().empty())
    return respond(error(400, "not an http(s) address: " + body["url"].get<std::string>()));
  std::optional<std::vector<std::string>> types;
  if (body.contains("permittedMIMETypes") && !body["permittedMIMETypes"].is_null()) {
    const json& list = body["permittedMIMETypes"];
    if (!list.is_array()) return respond(error(400, "permittedMIMETypes must be a list of strings"));
    types.emplace();
    for (const auto& type : list) {
      if (!type.is_string()) return respond(error(400, "permittedMIMETypes must be a list of strings"));
      types->push_back(type.get<std::string>());
    }
  }
  service.addDownload(*url, std::move(types),
                      [respond](const std::optional<platform::DownloadItem>& item, const std::optional<std::string>& message) {
                        if (item) {
                          json body = {{"download", jsonOf(*item)}};
                          if (message) body["message"] = *message;
                          return respond(answer(201, body));
                        }
                        respond(error(422, message.value_or("The address was not added.")));
                      });
}

HttpResponse putSettings(platform::DownloadService& service, const HttpRequest& request) {
  const json body = json::parse(request.body, nullptr, false);
  if (!body.is_object()) return error(400, "expected a JSON object");
  platform::DownloadSettings settings = service.settings();
  for (const auto& [key, value] : body.items()) {
    if (key == "downloadsPermitted" && value.is_boolean()) {
      settings.downloadsPermitted = value.get<bool>();
    } else if (key == "useCellularData" && value.is_boolean()) {
      settings.useCellularData = value.get<bool>();
    } else if (key == "maxActiveDownloadCount" && value.is_number_integer() && value.get<int64_t>() >= 1 &&
               value.get<int64_t>() <= 10) {
      settings.maxActiveDownloadCount = value.get<int64_t>();
    } else {
      return error(400, "bad setting: " + key + " (downloadsPermitted and useCellularData are booleans, "
                                                "maxActiveDownloadCount is 1 to 10)");
    }
  }
  service.setSettings(settings);
  return answer(200, jsonOf(service.settings()));
}

json recentItems(const std::string& documentsDirectory) {
  json sources = json::array();
  for (const auto& source : platform::RecentItemsRegistry::sharedInstance()->sources()) {
    json items = json::array();
    for (const auto& item : source->items()) {
      const std::string url = documentURLForPath(documentsDirectory, item.path);
      items.push_back({{"path", item.path}, {"uniqueId", item.uniqueId}, {"url", url.empty() ? json(nullptr) : json(url)}});
    }
    sources.push_back({{"name", source->name()}, {"title", source->title()}, {"items", items}});
  }
  return sources;
}

std::vector<std::string> split(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    if (slash > start) parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

HttpResponse documentError(const DocumentError& failure) {
  switch (failure.kind) {
    case DocumentError::Kind::BadName: return error(400, failure.message);
    case DocumentError::Kind::NotFound: return error(404, failure.message);
    case DocumentError::Kind::Exists: return error(409, failure.message);
    case DocumentError::Kind::Failed: break;
  }
  return error(500, failure.message);
}

// parts: "api", "documents", NAME[, "rename"]. NAME is one decoded path segment.
HttpResponse changeDocument(const std::vector<std::string>& parts, const HttpRequest& request,
                            const std::string& documentsDirectory) {
  const DocumentFiles files(documentsDirectory);
  if (parts.size() == 3) {
    if (request.method != "DELETE") return error(405, "use DELETE");
    if (auto failure = files.remove(parts[2])) return documentError(*failure);
    documentsChanged();
    return noContent();
  }
  if (parts.size() != 4 || parts[3] != "rename") return error(404, "no such API: " + request.path);
  if (request.method != "POST") return error(405, "use POST");
  const json body = json::parse(request.body, nullptr, false);
  if (!body.is_object() || !body.contains("name") || !body["name"].is_string())
    return error(400, "expected {\"name\": \"new name\"}");
  const std::string newName = body["name"].get<std::string>();
  if (auto failure = files.rename(parts[2], newName)) return documentError(*failure);
  documentsChanged();
  const std::string url = documentURLForPath(documentsDirectory, documentsDirectory + "/" + newName);
  return answer(200, {{"name", newName}, {"url", url}});
}

void route(const HttpRequest& request, const std::string& documentsDirectory, std::function<void(HttpResponse)> respond) {
  const auto parts = split(request.path);  // "api", …
  const std::string& method = request.method;
  if (parts.size() == 2 && parts[1] == "recent") {
    if (method != "GET") return respond(error(405, "use GET"));
    return respond(answer(200, recentItems(documentsDirectory)));
  }
  if (parts.size() >= 3 && parts[1] == "documents") return respond(changeDocument(parts, request, documentsDirectory));
  auto service = platform::DownloadService::sharedInstance();
  const bool downloads = parts.size() >= 2 && parts[1] == "downloads";
  const bool settings = parts.size() == 2 && parts[1] == "settings";
  if (!downloads && !settings) return respond(error(404, "no such API: " + request.path));
  if (!service) return respond(error(503, "the download module is not loaded"));

  if (settings) {
    if (method == "GET") return respond(answer(200, jsonOf(service->settings())));
    if (method == "PUT") return respond(putSettings(*service, request));
    return respond(error(405, "use GET or PUT"));
  }
  if (parts.size() == 2) {
    if (method == "GET") {
      json list = json::array();
      for (const auto& item : service->downloads()) list.push_back(jsonOf(item));
      return respond(answer(200, list));
    }
    if (method == "POST") return addDownload(*service, request, std::move(respond));
    return respond(error(405, "use GET or POST"));
  }
  const std::string& uniqueId = parts[2];
  if (parts.size() == 3) {
    if (method != "DELETE") return respond(error(405, "use DELETE"));
    return respond(service->removeDownload(uniqueId) ? noContent() : error(404, "no download " + uniqueId));
  }
  if (parts.size() == 4 && (parts[3] == "start" || parts[3] == "stop")) {
    if (method != "POST") return respond(error(405, "use POST"));
    return respond(service->setActive(uniqueId, parts[3] == "start") ? noContent() : error(404, "no download " + uniqueId));
  }
  respond(error(404, "no such API: " + request.path));
}

}  // namespace

void handleApiRequest(const HttpRequest& request, const std::string& documentsDirectory,
                      std::function<void(HttpResponse)> respond) {
  try {
    route(request, documentsDirectory, respond);
  } catch (const std::exception& failure) {
    // A fault of the host's own: the request gets 500 (a second answer is dropped), the host goes on.
    platform::log(std::string("An API request failed: ") + failure.what());
    respond(error(500, "internal error"));
  }
}

}  // namespace shelf
