#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "cmd/Commands.h"
#include "cmd/DevicePresence.h"
#include "cmd/Devices.h"
#include "cmd/Listener.h"
#include "cmd/Output.h"
#include "cmd/Server.h"
#include "cmd/Signals.h"

namespace vel {
namespace {

// One service: the module, the device, and how to go about it.
struct Service {
  std::shared_ptr<ModuleLibrary> library;
  DevicePresence& presence;
  const StopSignal& stop;
  Server::Answers answers;

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
      Server server(library, *identity, answers, stream);
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
  FdStream stream(STDIN_FILENO, ResultsDescriptor(), service.stop);
  std::string error;
  switch (service.Run(stream, error)) {
    case Server::End::kRemoteDone:
    case Server::End::kStopped:
      return 0;
    case Server::End::kRemoteGone:
      throw std::runtime_error(error);
    case Server::End::kDeviceGone:
      throw std::runtime_error(kDeviceGone);
  }
  return 0;
}

int ServeSocket(const Service& service, const std::string& device, const Listener& listener) {
  Note("serving " + device + " on " + listener.Name() + ", one remote side at a time; interrupt to end");
  while (true) {
    std::string peer;
    const UniqueFd remote = listener.Accept(peer);
    if (!remote.IsValid()) {
      return 0;
    }
    Note(peer + " connected");
    FdStream stream(remote.Get(), remote.Get(), service.stop);
    std::string error;
    switch (service.Run(stream, error)) {
      case Server::End::kRemoteDone:
        Note(peer + " is done, device given back");
        break;
      case Server::End::kRemoteGone:
        Note(Format("%s: %s; device given back", peer.c_str(), error.c_str()));
        break;
      case Server::End::kStopped:
        Note("interrupted, device given back");
        return 0;
      case Server::End::kDeviceGone:
        throw std::runtime_error(kDeviceGone);
    }
  }
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
  line->add_flag("--answer-failures", serve->answerFailures,
                 "Answer transfers that failed or were cancelled, too: with their status and what had arrived");
  line->add_flag("--lean-replies", serve->leanReplies, "Answer OUT transfers without the data of their requests");
  line->add_flag("--wait", serve->wait,
                 "Wait for a local device that is not there yet, and take it back when it returns");
  return {line, [&common, serve] {
            const CaughtSignals signals;
            return RunServe(common, *serve, signals.Stop());
          }};
}

int RunServe(const CommonOptions& common, const ServeOptions& serve, const StopSignal& stop) {
  DevicePresence presence(common.device, serve.wait, common.cameraSource);
  const Service service{
      ModuleLibrary::Load(common.modulePath), presence, stop, {serve.answerFailures, serve.leanReplies}};
  return serve.stdio ? ServeStdio(service) : ServeSocket(service, common.device, Listener(serve.listen, stop));
}

}  // namespace vel
