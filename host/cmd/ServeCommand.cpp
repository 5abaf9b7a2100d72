#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "cmd/Commands.h"
#include "cmd/console/Format.h"
#include "cmd/console/Observing.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/console/UsageError.h"
#include "cmd/serve/DevicePresence.h"
#include "cmd/serve/Listener.h"
#include "cmd/serve/Reception.h"
#include "cmd/serve/Server.h"
#include "os/StandardStreams.h"
#include "remote/FdStream.h"
#include "remote/TlsContext.h"

namespace vel {
namespace {

struct ServeOptions {
  bool stdio = false;
  std::string listen;     // ADDR:PORT, :PORT or PORT
  bool insecure = false;  // Without TLS also where other machines reach it.
  bool answerFailures = false;
  bool leanReplies = false;
  bool wait = false;  // For a local device that is not there yet, or comes back.
};

// One service: the module, the device, and how to go about it.
struct Service {
  std::shared_ptr<ModuleLibrary> library;
  DevicePresence& presence;
  const StopSignal& stop;
  ModuleSession::Answers answers;
  DeviceTap& tap;

  // Serves one remote side, once the device is there.
  Server::End Run(ByteStream& stream, std::string& error) const {
    const std::optional<DeviceIdentity> identity = presence.Await(stream);
    if (!identity) {
      error = "the remote side is gone, the device never came";
      return stop.IsRaised()    ? Server::End::kStopped
             : presence.Waits() ? Server::End::kRemoteGone
                                : Server::End::kDeviceGone;
    }
    Server::End end = Server::End::kStopped;
    {
      Server server(library, *identity, answers, stream, tap);
      const DevicePresence::Attachment attachment(presence, server);
      end = server.Run();
      error = server.Error();
    }
    presence.GiveBack();
    return end;
  }
};

constexpr char kDeviceGone[] = "the device is gone, the service ends (--wait waits for its return)";

int ServeStdio(const Service& service) {
  StandardPipes pipes(ResultsDescriptor());
  std::string error;
  const Server::End end = [&] {
    FdStream stream(pipes.In(), pipes.Out(), service.stop);
    return service.Run(stream, error);
  }();
  const bool taken = pipes.Finish(service.stop.Fd());
  switch (end) {
    case Server::End::kRemoteDone:
      if (!taken && !service.stop.IsRaised()) {
        throw std::runtime_error(Server::kRepliesLost);
      }
      return 0;
    case Server::End::kStopped:
      return 0;
    case Server::End::kRemoteGone:
      throw std::runtime_error(error);
    case Server::End::kDeviceGone:
      throw std::runtime_error(kDeviceGone);
  }
  return 0;
}

int ServeSocket(const Service& service, const std::string& device, const Listener& listener,
                const std::string& tlsFolder) {
  const Reception::Limits limits;
  Reception reception(listener, tlsFolder, service.stop, &Note, limits);
  Note("serving " + device + " on " + listener.Name() + (tlsFolder.empty() ? "" : " by TLS") +
       ", one remote side at a time; interrupt to end");
  while (const std::optional<Reception::Visitor> visitor = reception.Next()) {
    const std::string& peer = visitor->name;
    Note(peer + " connected");
    std::string error;
    switch (service.Run(*visitor->stream, error)) {
      case Server::End::kRemoteDone:
        Note(peer + " is done, device given back");
        break;
      case Server::End::kRemoteGone:
        if (visitor->stream->LostPatience()) {
          const auto seconds = std::chrono::ceil<std::chrono::seconds>(limits.stuck).count();
          error = "it has read nothing for " + std::to_string(seconds) + " s while another one waits";
        }
        Note(Format("%s: %s; device given back", peer.c_str(), error.c_str()));
        break;
      case Server::End::kStopped:
        Note("interrupted, device given back");
        return 0;
      case Server::End::kDeviceGone:
        throw std::runtime_error(kDeviceGone);
    }
  }
  return 0;
}

constexpr char kOpenToAll[] =
    "give --tls DIR, the folder of its certificates, or --insecure where everybody there may have the device";

// Serves until `stop` is raised, or with stdio until its input ends.
int RunServe(const CommonOptions& common, const ServeOptions& serve, const StopSignal& stop) {
  const std::string& tlsFolder = common.tlsFolder;
  if (serve.stdio && !tlsFolder.empty()) {
    throw UsageError("--tls is for --listen: what carries standard input and output has to be safe, as ssh is");
  }
  if (!tlsFolder.empty()) {
    static_cast<void>(TlsContext(tlsFolder, TlsContext::Side::kServer));  // Says now what is wrong with it.
  }
  std::optional<Listener> listener;
  if (!serve.stdio) {
    listener.emplace(serve.listen, stop, tlsFolder.empty() && !serve.insecure ? kOpenToAll : nullptr);
  }
  Observer observer(ObserverOptions(common, !serve.stdio));
  const std::shared_ptr<DeviceTap> tap = observer.Watch(common.device);
  DevicePresence presence(common.device, serve.wait, common.cameraSource);
  const Service service{
      ModuleLibrary::Load(common.modulePath), presence, stop, {serve.answerFailures, serve.leanReplies}, *tap};
  return listener ? ServeSocket(service, common.device, *listener, tlsFolder) : ServeStdio(service);
}

}  // namespace

Subcommand AddServe(CLI::App& app, CommonOptions& common) {
  const auto serve = std::make_shared<ServeOptions>();
  CLI::App* const line = app.add_subcommand("serve", "Carry a device's packets over a byte stream");
  AddDevice(*line, common);
  CLI::Option_group* const where = line->add_option_group("where");
  where->add_flag("--stdio", serve->stdio, "Over standard input and output");
  where->add_option("--listen", serve->listen, "On ADDR:PORT, or on PORT of the loopback address")
      ->type_name("[ADDR:]PORT");
  where->require_option(1);
  line->add_flag("--insecure", serve->insecure,
                 "Without --tls also where other machines reach it: anybody, unencrypted");
  line->add_flag("--answer-failures", serve->answerFailures,
                 "Answer transfers that failed or were cancelled, too: with their status and what had arrived");
  line->add_flag("--lean-replies", serve->leanReplies, "Answer OUT transfers without the data of their requests");
  line->add_flag("--wait", serve->wait,
                 "Wait for a local device that is not there yet, and take it back when it returns");
  AddObserveOptions(*line, common);
  return {line, [&common, serve] {
            const CaughtSignals signals;
            return RunServe(common, *serve, signals.Stop());
          }};
}

}  // namespace vel
