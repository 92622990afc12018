#pragma once
// The mount status rows and publications of a world as the machines last wrote them, kept by
// reactors on every service's status and on the publish status: each update reads again only
// the groups and switches that changed, so following a run costs what changes, not what exists.
// The narrator and the timeline share one view.

#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "host/World.h"

namespace Host {

class StatusView {
 public:
  using Key = std::tuple<std::string, std::string, std::string, std::string>;  // service, switch, group, path
  struct Row {
    std::string state, mountedPath;
  };
  // A row whose state changed; "absent" stands for no row.
  struct Change {
    Key key;
    std::string before, after;
  };
  using Publication = std::pair<std::string, std::string>;  // switch, local path

  explicit StatusView(World const& w);
  ~StatusView();
  StatusView(StatusView const&) = delete;
  StatusView& operator=(StatusView const&) = delete;

  // Reads what the reactors saw change since the last update.
  void update();
  // The rows whose state changed in the last update, in key order.
  std::vector<Change> const& changes() const { return changes_; }
  // Publications placed and withdrawn in the last update, and by which service when placed.
  std::vector<std::pair<Publication, std::string>> const& placed() const { return placed_; }
  std::vector<Publication> const& withdrawn() const { return withdrawn_; }

  std::map<Key, Row> const& rows() const { return rows_; }
  std::set<Publication> const& published() const { return published_; }

  // Scopes to read again: a service, one of its switches or one of their groups ("" for all).
  void dirty(std::string const& service, std::string const& sw = {}, std::string const& group = {});
  void dirtyPublished(std::string const& sw) { dirtyPublished_.insert(sw); }

  struct Watches;

 private:
  void read(std::string const& service, std::string const& sw, std::string const& group);
  void readPublished(std::string const& sw);

  World const& w_;
  std::map<Key, Row> rows_;
  std::set<Publication> published_;
  std::set<std::tuple<std::string, std::string, std::string>> dirty_;
  std::set<std::string> dirtyPublished_;
  std::vector<Change> changes_;
  std::vector<std::pair<Publication, std::string>> placed_;
  std::vector<Publication> withdrawn_;
  std::unique_ptr<Watches> watches_;
};

}  // namespace Host
