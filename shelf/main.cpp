// shelf: a personal file shelf. `serve` runs the host with its web UI (the
// default), `add` hands addresses to the running host, `get` downloads
// headless and exits.
#include <clocale>

#include <CLI/CLI.hpp>

#include "module/platform/MediaLibraryProbe.h"
#include "shelf/AddCommand.h"
#include "shelf/GetCommand.h"
#include "shelf/ServeCommand.h"

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  CLI::App app{"shelf: a personal file shelf with a download queue"};
  app.require_subcommand(0, 1);

  ServeOptions serveOptions;
  CLI::App* serveCommand = app.add_subcommand("serve", "Run the host with its web UI (the default)");
  for (CLI::App* command : {&app, serveCommand}) {
    command->add_option("--root", serveOptions.root, "Folder holding Library/ and Documents/");
    command->add_option("--documents", serveOptions.documents, "Documents folder (default: ROOT/Documents)");
    command->add_option("--port", serveOptions.port, "Port to listen on (default: 8787, or any free one)");
    command->add_option("--listen", serveOptions.listen,
                        "Address to listen on (default: 127.0.0.1; others require the access token)");
    command->add_option("--lang", serveOptions.language, "Language of the texts, e.g. de (default: the locale)");
  }

  AddOptions addOptions;
  CLI::App* addCommand = app.add_subcommand("add", "Hand addresses to the running host");
  addCommand->add_option("urls", addOptions.urls, "Web addresses")->required();
  addCommand->add_option("--root", addOptions.root, "The root of the running host");
  addCommand->add_option("--type", addOptions.permittedMIMETypes, "Accept only these MIME types (repeatable)");

  GetOptions getOptions;
  CLI::App* getCommand = app.add_subcommand(
      "get", "Download the addresses into a folder, then exit; run it again to resume an interrupted run");
  getCommand->add_option("urls", getOptions.urls, "Web addresses");
  getCommand->add_option("-i,--input-file", getOptions.inputFile,
                         "Read addresses from FILE, one a line ('#' starts a comment; - is standard input)");
  getCommand->add_option("-o,--output", getOptions.outputDirectory,
                         "Folder for the files (default: here); what lets a run resume is kept in its .shelf-get");
  getCommand->add_option("--tries", getOptions.tries, "Failures in a row before giving up (0: keep retrying)")
      ->check(CLI::NonNegativeNumber);
  getCommand->add_flag("--restart", getOptions.restart, "Fetch these addresses from the start, dropping what was kept");
  getCommand->add_flag("-q,--quiet", getOptions.quiet, "Print only the placed files' paths and errors");
  getCommand->add_flag("-v,--verbose", getOptions.verbose, "Print the module's log");
  getCommand->footer(kGetStatusHelp);

  bool noMedia = false;
  for (CLI::App* command : {&app, serveCommand, getCommand})
    command->add_flag("--no-media", noMedia, "Run without the media library: playlists are fetched as plain files");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help answers 0; a command line that cannot be read is bad input.
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (noMedia) platform::MediaLibraryProbe::setEnabled(false);
  if (getCommand->parsed()) return runGet(getOptions);
  if (addCommand->parsed()) return runAdd(addOptions);
  return runServe(serveOptions);
}
