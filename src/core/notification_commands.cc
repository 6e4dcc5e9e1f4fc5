// The notification commands and the tick's notification work: settings, types, a mail on demand
// and a failover told from outside.
#include "core/san_computer.h"
#include "core/velm_plugin.h"
#include "notify/mail_delivery.h"
#include "notify/notification_config.h"
#include "notify/notification_tick.h"
#include "platform/log.h"

namespace velm {
namespace {

const char* kInvalidArgument = "INVALID_ARG_ERR";

}  // namespace

int VelmPlugin::processNotifications() {
  return velm::processNotifications(context(), SANComputer::thisComputer().sanName());
}

std::optional<PropertyList> VelmPlugin::getNotificationsConfigurationWithRequest(
    const PropertyList&) {
  PropertyList r = PropertyList::dict();
  if (std::optional<PropertyList> configuration = getNotificationDictionary())
    r.set("config", std::move(*configuration));
  return r;
}

std::optional<PropertyList> VelmPlugin::setNotificationsConfigurationWithRequest(
    const PropertyList& request) {
  const char* fn = "setNotificationsConfiguration";
  const PropertyList* configuration = request.get("config");
  bool success;
  if (!configuration) {
    NLog("Preparing to delete Notifications configuration");
    success = setNotificationDictionary(nullptr);
  } else if (!configuration->isDict() || !isNotificationsDictValid(configuration)) {
    NError("%s: Notifications Configuration Dictionary is invalid", fn);
    return responseForError(kInvalidArgument);
  } else {
    NLog("Preparing to update Notifications configuration");
    success = setNotificationDictionary(configuration);
  }
  PropertyList r = PropertyList::dict();
  r.set("success", success);
  return r;
}

std::optional<PropertyList> VelmPlugin::getNotificationsTypesWithRequest(const PropertyList&) {
  PropertyList r = PropertyList::dict();
  r.set("types", getNotificationTypes());
  return r;
}

std::optional<PropertyList> VelmPlugin::sendNotificationWithRequest(const PropertyList& request) {
  const char* fn = "sendNotification";
  const std::string* body = request.getString("messageBody");
  const std::string* subject = request.getString("messageSubject");
  const std::string* type = request.getString("messageType");
  int index = type ? getNotificationTypeWithName(*type) : -1;
  if ((!body && !subject) || index < 0) return responseForError(kInvalidArgument);
  std::optional<PropertyList> configuration;
  if (const PropertyList* trial = request.get("config")) {
    // A tool may try settings it hasn't saved yet.
    if (!trial->isDict() || !isNotificationsDictValid(trial)) {
      NError("%s: Notifications Configuration Dictionary is invalid", fn);
      return responseForError(kInvalidArgument);
    }
    configuration = *trial;
  } else {
    // Deliberate: the saved settings go unchecked; without any, the mail finds no addresses.
    configuration = getNotificationDictionary().value_or(PropertyList::dict());
  }
  MailRound round;
  sendNotification(index, subject ? *subject : std::string(), body ? *body : std::string(),
                   *configuration, SANComputer::thisComputer().sanName(), round);
  return PropertyList::dict();
}

std::optional<PropertyList> VelmPlugin::sendFailoverWithRequest(const PropertyList& request) {
  const std::string* volume = request.getString("volume");
  const std::string* host = request.getString("hostname");
  if (!volume || !host) return responseForError(kInvalidArgument);
  sendFailoverNotificationForVolume(*volume, *host, SANComputer::thisComputer().sanName());
  return PropertyList::dict();
}

}  // namespace velm
