// kestrel serve: hotword detection for Home Assistant over the Wyoming
// protocol (server/).
#include <signal.h>

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "facade/hotword-detector.h"
#include "listener.h"
#include "server-log.h"
#include "utils/kestrel-log.h"
#include "wake-service.h"

namespace kestrel {
namespace {

Listener* g_listener = nullptr;  // for the signal handler

void StopOnSignal(int) { g_listener->Stop(); }

}  // namespace

int RunServe(int argc, char** argv) {
  DetectorArgs args;
  std::string uri = "tcp://0.0.0.0:10400";
  int32 max_clients = 64;
  bool debug = false;
  ArgParser parser(
      "kestrel serve --model-str=MODELS [options]",
      "Serves hotword detection over the Wyoming protocol, for Home Assistant's\n"
      "voice pipelines (add it there with the Wyoming integration, giving this\n"
      "machine's host name and the port). Clients send 16 kHz 16-bit mono audio\n"
      "and are told each hotword by name: --hotword-names, or else the name the\n"
      "model stores, or its file name (hey-kestrel.kmodel: hey-kestrel; with -1,\n"
      "-2, ... appended for a model of several hotwords), spaces as dashes. One\n"
      "log line per connection on standard error; SIGTERM or SIGINT lets the\n"
      "clients' events in hand finish, then exits 0.");
  AddDetectorOptions(&parser, &args);
  parser.AddString("uri", &uri, "where to listen: tcp://HOST:PORT or unix:///PATH");
  parser.AddInt("max-clients", &max_clients,
                "connections served at once; more are closed\nat once");
  parser.AddFlag("debug", &debug, "log every event received and sent");

  std::vector<std::string> positional;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &positional, &status)) return status;
  if (!positional.empty()) return UsageError("serve", "unexpected argument \"" + positional[0] + "\"");
  if (max_clients < 1) return UsageError("serve", "--max-clients must be at least 1");

  std::unique_ptr<WakeService> service;
  try {
    HotwordDetectorOptions options;
    std::string error;
    if (!MakeDetectorOptions(args, &options, &error)) return UsageError("serve", error);
    service = std::make_unique<WakeService>(options);
  } catch (const KestrelError& e) {
    return Failure("cannot load " + args.model_str + ": " + e.what());
  } catch (const std::runtime_error& e) {
    return UsageError("serve", e.what());
  }
  ServerLog log(debug);
  std::unique_ptr<Listener> listener;
  try {
    listener = std::make_unique<Listener>(uri, max_clients, service.get(), &log);
  } catch (const std::invalid_argument& e) {
    return UsageError("serve", e.what());
  } catch (const std::runtime_error& e) {
    return Failure(e.what());
  }

  g_listener = listener.get();
  struct sigaction action = {};
  action.sa_handler = StopOnSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  std::string hotwords;
  for (const std::string& name : service->HotwordNames()) {
    hotwords += (hotwords.empty() ? "" : ", ") + name;
  }
  log.Info("listening on " + listener->Address() + "; hotwords: " + hotwords);
  listener->Run();
  // The handler must not outlive the listener.
  signal(SIGTERM, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  log.Info("stopped");
  return kExitOk;
}

}  // namespace kestrel
