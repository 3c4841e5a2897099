#include "StateDrawing.h"

#include <algorithm>
#include <cstdio>

#include "loomwork/sqlite/OTSQLiteDataSource.h"
#include "loomwork/sync.h"

namespace loomwork::tasks {

namespace {

// Reading needs no model: the integration calls are never made.
class ReadOnlyStore final : public OTSQLiteDataSource {
 public:
  using OTSQLiteDataSource::OTSQLiteDataSource;
  Ref<UGTransaction> seedForOTSyncController(OTSyncController&) override { return UGTransaction::transaction(); }
  bool OTSyncControllerCanIntegrateOperations(OTSyncController&) override { return false; }
  Ref<OTPathComponent> availableSeedForSyncController(OTSyncController&) override { return nullptr; }
  void OTSyncControllerIntegrateReplacementSeed(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerIntegrateAndConsumeOperation(OTSyncController&, const Ref<UGMutableTransaction>&) override {}
  void OTSyncControllerPerformIntegrationBlock(OTSyncController&, std::function<void()>) override {}
};

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

}  // namespace

std::string escapeXML(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '&': escaped += "&amp;"; break;
      case '"': escaped += "&quot;"; break;
      case '\'': escaped += "&apos;"; break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t') escaped += c;
    }
  }
  return escaped;
}

std::string stateSpaceSVG(const std::string& databasePath) {
  auto store = std::make_shared<ReadOnlyStore>(databasePath);
  auto controller = make<OTSyncController>(OTSyncControllerTypeServer);
  controller->setDataSource(store);
  controller->restoreInternalState();
  const auto components = store->OTSyncControllerPathComponentsInRange(*controller, *OTRange::infiniteRange());
  const auto current = controller->currentState();
  const auto claimed = store->claimedRemoteStateForSyncController(*controller);
  const auto& identifier = controller->stateSpaceIdentifier();

  int64_t maxServer = 1, maxClient = 1;
  auto extend = [&](const std::optional<OTState>& state) {
    if (!state) return;
    maxServer = std::max(maxServer, state->serverIndex());
    maxClient = std::max(maxClient, state->clientIndex());
  };
  for (const auto& component : components) {
    extend(component->fromState());
    extend(component->toState());
  }
  extend(current);
  extend(claimed);

  const double step = std::clamp(560.0 / static_cast<double>(std::max(maxServer, maxClient)), 2.0, 48.0);
  const double left = 60, top = 70;
  const double width = left + step * static_cast<double>(maxServer) + 240;
  const double height = top + step * static_cast<double>(maxClient) + 60;
  auto x = [&](const OTState& state) { return left + step * static_cast<double>(state.serverIndex()); };
  auto y = [&](const OTState& state) { return top + step * static_cast<double>(state.clientIndex()); };

  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(width) + "\" height=\"" +
                    number(height) + "\" font-family=\"sans-serif\" font-size=\"12\">\n";
  svg +=
      "<defs><marker id=\"arrow\" viewBox=\"0 0 10 10\" refX=\"10\" refY=\"5\" markerWidth=\"6\" markerHeight=\"6\" "
      "orient=\"auto-start-reverse\"><path d=\"M0,0 L10,5 L0,10 z\" fill=\"context-stroke\"/></marker></defs>\n";
  svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg += "<text x=\"10\" y=\"20\" font-size=\"14\">State space " +
         escapeXML(identifier && identifier->fullIdentifier() ? *identifier->fullIdentifier() : "(not paired)") +
         "</text>\n";
  svg += "<text x=\"" + number(left) + "\" y=\"" + number(top - 30) + "\">server index &#8594;</text>\n";
  svg += "<text x=\"10\" y=\"" + number(top) + "\" transform=\"rotate(90 10," + number(top) +
         ")\">client index &#8594;</text>\n";
  // The grid.
  const int64_t labelEvery = std::max<int64_t>(1, static_cast<int64_t>(24 / step) + 1);
  for (int64_t s = 0; s <= maxServer; ++s) {
    const double gx = left + step * static_cast<double>(s);
    svg += "<line x1=\"" + number(gx) + "\" y1=\"" + number(top) + "\" x2=\"" + number(gx) + "\" y2=\"" +
           number(top + step * static_cast<double>(maxClient)) + "\" stroke=\"#eee\"/>\n";
    if (s % labelEvery == 0)
      svg += "<text x=\"" + number(gx) + "\" y=\"" + number(top - 8) + "\" text-anchor=\"middle\">" +
             std::to_string(s) + "</text>\n";
  }
  for (int64_t c = 0; c <= maxClient; ++c) {
    const double gy = top + step * static_cast<double>(c);
    svg += "<line x1=\"" + number(left) + "\" y1=\"" + number(gy) + "\" x2=\"" +
           number(left + step * static_cast<double>(maxServer)) + "\" y2=\"" + number(gy) + "\" stroke=\"#eee\"/>\n";
    if (c % labelEvery == 0)
      svg += "<text x=\"" + number(left - 8) + "\" y=\"" + number(gy + 4) + "\" text-anchor=\"end\">" +
             std::to_string(c) + "</text>\n";
  }
  // The components: one step of the server or of the client, or several
  // steps at once (what a merge or a composition produced: the remainders
  // that bring each side to the merged state).
  for (const auto& component : components) {
    if (!component->fromState() || !component->toState()) continue;
    const OTState& from = *component->fromState();
    const OTState& to = *component->toState();
    const int64_t steps = (to.serverIndex() - from.serverIndex()) + (to.clientIndex() - from.clientIndex());
    const char* colour = steps != 1                               ? "#e07b00"
                         : from.clientIndex() == to.clientIndex() ? "#1f5fbf"
                                                                   : "#2a9d3a";
    svg += "<line x1=\"" + number(x(from)) + "\" y1=\"" + number(y(from)) + "\" x2=\"" + number(x(to)) + "\" y2=\"" +
           number(y(to)) + "\" stroke=\"" + colour + "\" stroke-width=\"2\" marker-end=\"url(#arrow)\"><title>" +
           escapeXML(component->pathDescription() + " " + std::to_string(component->operation() ? component->operation()->count() : 0) +
                     " operations") +
           "</title></line>\n";
  }
  if (claimed)
    svg += "<circle cx=\"" + number(x(*claimed)) + "\" cy=\"" + number(y(*claimed)) +
           "\" r=\"7\" fill=\"none\" stroke=\"black\" stroke-width=\"2\"/>\n";
  if (current)
    svg += "<circle cx=\"" + number(x(*current)) + "\" cy=\"" + number(y(*current)) + "\" r=\"4.5\" fill=\"#d62828\"/>\n";
  // The legend.
  const double lx = left + step * static_cast<double>(maxServer) + 40;
  double ly = top;
  auto legendLine = [&](const char* colour, const std::string& text) {
    svg += "<line x1=\"" + number(lx) + "\" y1=\"" + number(ly) + "\" x2=\"" + number(lx + 24) + "\" y2=\"" + number(ly) +
           "\" stroke=\"" + colour + "\" stroke-width=\"2\" marker-end=\"url(#arrow)\"/><text x=\"" + number(lx + 32) +
           "\" y=\"" + number(ly + 4) + "\">" + escapeXML(text) + "</text>\n";
    ly += 20;
  };
  legendLine("#1f5fbf", "one server step");
  legendLine("#2a9d3a", "one client step");
  legendLine("#e07b00", "several steps (merged)");
  svg += "<circle cx=\"" + number(lx + 12) + "\" cy=\"" + number(ly) + "\" r=\"4.5\" fill=\"#d62828\"/><text x=\"" +
         number(lx + 32) + "\" y=\"" + number(ly + 4) + "\">current " +
         escapeXML(current ? current->description() : "-") + "</text>\n";
  ly += 20;
  svg += "<circle cx=\"" + number(lx + 12) + "\" cy=\"" + number(ly) +
         "\" r=\"7\" fill=\"none\" stroke=\"black\" stroke-width=\"2\"/><text x=\"" + number(lx + 32) + "\" y=\"" +
         number(ly + 4) + "\">claimed by the other " + escapeXML(claimed ? claimed->description() : "-") + "</text>\n";
  ly += 20;
  svg += "<text x=\"" + number(lx) + "\" y=\"" + number(ly + 4) + "\">" + std::to_string(components.size()) +
         " stored components</text>\n";
  svg += "</svg>\n";
  return svg;
}

}  // namespace loomwork::tasks
