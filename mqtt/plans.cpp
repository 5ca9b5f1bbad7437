#include "plans.h"

#include "commands.h"
#include "journal.h"
#include "ledger.h"

#include <glib.h>

#include <algorithm>

static constexpr const char *kCarriedOut = "carried_out"; // of the file: by source, the sha256

static std::string sha256_of(const std::string &text) {
  g_autofree char *sum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.data(),
                                                       static_cast<gssize>(text.size()));
  return sum;
}

plans::plans(const configuration &configuration, std::string file)
    : configuration_(configuration), file_(std::move(file)) {
  json read = json::parse(read_file(file_), nullptr, false); // a missing member reads as null
  if (!read.is_object() || !read["source"].is_string() || !read["sha256"].is_string() ||
      !read["refused"].is_array())
    return;
  if (read[kCarriedOut].is_object()) // a file of an earlier version has none
    carried_out_ = read[kCarriedOut];
  read.erase(kCarriedOut);
  carried_out_[read["source"].get<std::string>()] = read["sha256"];
  applied_ = text_of(read);
}

// One that is withdrawn still hides those that come after it: another one must not be carried out
// because of that. The next plan or the next connection ends it.
void plans::note(const message &message) {
  const auto known = topics();
  if (std::ranges::find(known, message.topic) == known.end())
    return;
  if (!message.payload.empty()) {
    std::erase_if(found_, [](const auto &found) { return found.second.payload.empty(); });
    found_[message.topic] = message;
  } else if (const auto found = found_.find(message.topic); found != found_.end()) {
    found->second = message;
  }
}

// PREFIX/NAME/set/apply without its ends.
std::string plans::source_of(const std::string &topic) const {
  const std::string source = topic.substr(configuration_.prefix.size() + 1);
  return source.substr(0, source.rfind("/set/"));
}

// The first that has one counts.
std::vector<std::string> plans::topics() const {
  std::vector<std::string> topics{configuration_.own("set/apply")};
  for (const std::string &group : configuration_.groups)
    topics.push_back(configuration_.group(group) + "/set/apply");
  return topics;
}

const message *plans::in_force() const {
  for (const std::string &topic : topics())
    if (const auto found = found_.find(topic); found != found_.end())
      return &found->second;
  return nullptr;
}

const message *plans::due(bool again) const {
  const message *plan = in_force();
  if (plan == nullptr || plan->payload.empty())
    return nullptr;
  const std::string sha256 = sha256_of(plan->payload);
  const bool is_applied =
      carried_out_.value(source_of(plan->topic), json()) == sha256 ||
      (!applied_.empty() && json::parse(applied_).value("sha256", "") == sha256);
  return is_applied && !again ? nullptr : plan;
}

// The message without what is the bridge's, as a file that apply reads.
static import_contents contents_of(const message &plan) {
  json contents = body_of(plan, {"revision", "types", "timers", "holidays"});
  contents.erase("id");
  contents.erase("revision");
  return read_import(contents, "the message", true);
}

static json about(const application &application) {
  const auto count = [&](const char *list) { return application.done[list].size(); };
  return {{"added", count("added")},
          {"cancelled", count("cancelled")},
          {"holidays_added", count("holidays_added")},
          {"holidays_removed", count("holidays_removed")},
          {"refused", application.done["refused"]},
          {"notes", application.notes}};
}

static json revision_of(const message &plan) {
  try {
    json revision = object_of(plan).value("revision", json());
    return revision.is_string() || revision.is_number() ? revision : json();
  } catch (const failure &) { // its refusal says why
    return {};
  }
}

void plans::keep() {
  const std::string source = source_of(begun_.topic);
  const std::string sha256 = sha256_of(begun_.payload);
  json document{{"source", source}, {"revision", revision_of(begun_)}, {"sha256", sha256}};
  add_utc(document, "at", machine_time());
  document.update(about(account_));
  applied_ = text_of(document);
  carried_out_[source] = sha256;
  document[kCarriedOut] = carried_out_;
  is_ended_ = true;
  steps_.reset();
  try {
    write_file(file_, text_of(document));
  } catch (const failure &failure) {
    log_problem(failure.what);
  }
}

void plans::begin(const message &plan) {
  if (is_ended_ || plan.topic != begun_.topic || plan.payload != begun_.payload)
    account_ = {};
  begun_ = plan;
  is_ended_ = false;
}

void plans::refuse(const std::string &why) {
  log_problem(begun_.topic + ": " + why);
  account_.done["refused"].push_back({{"what", "the message"}, {"why", why}});
}

applying::progress plans::go_on(client &client) {
  auto progress = applying::progress::kEnded;
  try {
    if (steps_ == nullptr)
      steps_ = std::make_unique<applying>(client, contents_of(begun_), account_);
    progress = steps_->step();
  } catch (const failure &failure) {
    steps_.reset();
    if (failure.kind != fault::kRefused && failure.kind != fault::kUsage)
      throw;
    refuse(failure.what);
  } catch (const std::exception &error) { // a number that JSON allows and nobody can hold
    refuse(error.what());
  }
  if (progress == applying::progress::kEnded)
    keep();
  return progress;
}

bool plans::is_done() const { return json::parse(applied_)["refused"].empty(); }
