// The host's JSON API, answered on the main thread:
//   GET    /api/downloads                      the queue
//   POST   /api/downloads                      {"url": …, "permittedMIMETypes": […]}: answers when the
//                                              module's intake completes, with the download or the message
//   POST   /api/downloads/{uniqueId}/start     and /stop
//   DELETE /api/downloads/{uniqueId}
//   GET    /api/settings, PUT /api/settings    the module's three settings
//   GET    /api/recent                         the recent items of every source
#pragma once

#include <functional>
#include <string>

#include "shelf/server/WebServer.h"

namespace shelf {

// REQUIRES: main thread. `respond` is called once, maybe later.
void handleApiRequest(const HttpRequest& request, const std::string& documentsDirectory,
                      std::function<void(HttpResponse)> respond);

}  // namespace shelf
