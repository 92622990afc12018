#include "host/StatusView.h"

#include <algorithm>
#include <utility>

#include "ControllerdbTypes.h"
#include "host/Report.h"

namespace Host {

namespace {

using Controller::MountStatus;
using Controller::ServiceMountGroupStatus;
using Controller::ServiceMountStatus;
using Controller::SystemStatus;

// One watch per member of a collection. A member is replaced only through its deletion, which the
// keyed callback reports, so a watch never has to change its entity.
template <class W>
class Children {
 public:
  template <class E, class Make>
  void follow(std::string const& key, E const& entity, Make const& make) {
    if (!entity) {
      watches_.erase(key);
      return;
    }
    Kiv::Ptr<W>& w = watches_[key];
    if (!w) w = make(entity);
  }
  void clear() { watches_.clear(); }

 private:
  std::map<std::string, Kiv::Ptr<W>> watches_;
};

std::string str(Kiv::String const& s) { return s.stdString(); }

class GroupWatch;

class MountWatch final : public MountStatus::NotifieeConst {
 public:
  MountWatch(Kiv::PtrConst<MountStatus> const& m, GroupWatch* group) : NotifieeConst(m), group_(group) {}
  void onMountState() override;
  void onMountedPath() override;

 private:
  GroupWatch* group_;
};

class GroupWatch final : public ServiceMountGroupStatus::NotifieeConst {
 public:
  GroupWatch(Kiv::PtrConst<ServiceMountGroupStatus> const& g, StatusView* view, std::string service, std::string sw,
             std::string group)
      : NotifieeConst(g), view_(view), service_(std::move(service)), sw_(std::move(sw)), group_(std::move(group)) {
    onMountStatus();
  }
  void touch() { view_->dirty(service_, sw_, group_); }
  void onMountStatus(Kiv::Name const& path) override {
    follow(path);
    touch();
  }
  void onMountStatus() override {
    mounts_.clear();
    if (auto const g = notifier())
      for (auto it = g->mountStatusIter(); it; ++it) follow(it.key());
    touch();
  }

 private:
  void follow(Kiv::Name const& path) {
    auto const g = notifier();
    mounts_.follow(str(path), g ? g->mountStatus(path) : nullptr,
                   [&](Kiv::PtrConst<MountStatus> const& m) { return Kiv::Ptr<MountWatch>(new MountWatch(m, this)); });
  }
  StatusView* view_;
  std::string service_, sw_, group_;
  Children<MountWatch> mounts_;
};

void MountWatch::onMountState() { group_->touch(); }
void MountWatch::onMountedPath() { group_->touch(); }

class SystemWatch final : public SystemStatus::NotifieeConst {
 public:
  SystemWatch(Kiv::PtrConst<SystemStatus> const& s, StatusView* view, std::string service, std::string sw)
      : NotifieeConst(s), view_(view), service_(std::move(service)), sw_(std::move(sw)) {
    onServiceMountGroupStatus();
  }
  void onServiceMountGroupStatus(Kiv::Name const& group) override {
    follow(group);
    view_->dirty(service_, sw_, str(group));
  }
  void onServiceMountGroupStatus() override {
    groups_.clear();
    if (auto const s = notifier())
      for (auto it = s->serviceMountGroupStatusIter(); it; ++it) follow(it.key());
    view_->dirty(service_, sw_);
  }

 private:
  void follow(Kiv::Name const& group) {
    auto const s = notifier();
    groups_.follow(str(group), s ? s->serviceMountGroupStatus(group) : nullptr,
                   [&](Kiv::PtrConst<ServiceMountGroupStatus> const& g) {
                     return Kiv::Ptr<GroupWatch>(new GroupWatch(g, view_, service_, sw_, str(group)));
                   });
  }
  StatusView* view_;
  std::string service_, sw_;
  Children<GroupWatch> groups_;
};

class ServiceWatch final : public ServiceMountStatus::NotifieeConst {
 public:
  ServiceWatch(Kiv::PtrConst<ServiceMountStatus> const& s, StatusView* view, std::string service)
      : NotifieeConst(s), view_(view), service_(std::move(service)) {
    onSystemStatus();
  }
  void onSystemStatus(Kiv::Name const& sw) override {
    follow(sw);
    view_->dirty(service_, str(sw));
  }
  void onSystemStatus() override {
    systems_.clear();
    if (auto const s = notifier())
      for (auto it = s->systemStatusIter(); it; ++it) follow(it.key());
    view_->dirty(service_);
  }

 private:
  void follow(Kiv::Name const& sw) {
    auto const s = notifier();
    systems_.follow(str(sw), s ? s->systemStatus(sw) : nullptr, [&](Kiv::PtrConst<SystemStatus> const& st) {
      return Kiv::Ptr<SystemWatch>(new SystemWatch(st, view_, service_, str(sw)));
    });
  }
  StatusView* view_;
  std::string service_;
  Children<SystemWatch> systems_;
};

// A status directory: the statuses of the scenario's services that keep theirs there.
class DirWatch final : public Kiv::Dir::NotifieeConst {
 public:
  DirWatch(World const& w, Kiv::PtrConst<Kiv::Dir> const& dir, StatusView* view)
      : NotifieeConst(dir), w_(w), view_(view) {
    onEntityPtr();
  }
  void onEntityPtr(Kiv::Name const& name) override {
    ServiceDecl const* d = w_.s.service(name.view());
    if (!d || w_.statusDir(*d).ptr() != notifier().ptr()) return;
    services_.follow(d->name, w_.mountStatusOf(*d), [&](Kiv::PtrConst<ServiceMountStatus> const& st) {
      return Kiv::Ptr<ServiceWatch>(new ServiceWatch(st, view_, d->name));
    });
    view_->dirty(d->name);
  }
  void onEntityPtr() override {
    services_.clear();
    for (auto const& d : w_.s.services) onEntityPtr(Kiv::Name(d.name));
  }

 private:
  World const& w_;
  StatusView* view_;
  Children<ServiceWatch> services_;
};

class PublishedWatch final : public Controllerdb::SystemPublishedMount::NotifieeConst {
 public:
  PublishedWatch(Kiv::PtrConst<Controllerdb::SystemPublishedMount> const& p, StatusView* view, std::string sw)
      : NotifieeConst(p), view_(view), sw_(std::move(sw)) {}
  void onPublishedMount(Kiv::String const&) override { view_->dirtyPublished(sw_); }
  void onPublishedMount() override { view_->dirtyPublished(sw_); }

 private:
  StatusView* view_;
  std::string sw_;
};

class PublishWatch final : public Controllerdb::PublishStatus::NotifieeConst {
 public:
  PublishWatch(Kiv::PtrConst<Controllerdb::PublishStatus> const& p, StatusView* view) : NotifieeConst(p), view_(view) {
    onSystem();
  }
  void onSystem(Controller::SystemId const& id) override {
    std::string const sw = Controller::valueToStrep(id);
    auto const p = notifier();
    systems_.follow(sw, p ? p->system(id) : nullptr, [&](Kiv::PtrConst<Controllerdb::SystemPublishedMount> const& s) {
      return Kiv::Ptr<PublishedWatch>(new PublishedWatch(s, view_, sw));
    });
    view_->dirtyPublished(sw);
  }
  void onSystem() override {
    systems_.clear();
    if (auto const p = notifier())
      for (auto it = p->systemIter(); it; ++it) onSystem(it.key());
  }

 private:
  StatusView* view_;
  Children<PublishedWatch> systems_;
};

}  // namespace

struct StatusView::Watches {
  Kiv::Ptr<DirWatch> mountStatus, proxyMountStatus;
  Kiv::Ptr<PublishWatch> published;
};

StatusView::StatusView(World const& w) : w_(w), watches_(new Watches) {
  watches_->mountStatus = new DirWatch(w, w.mountStatus, this);
  watches_->proxyMountStatus = new DirWatch(w, w.proxyMountStatus, this);
  watches_->published = new PublishWatch(w.dbPublish, this);
  // Published switches already present were marked as their watches were made.
}

StatusView::~StatusView() = default;

void StatusView::dirty(std::string const& service, std::string const& sw, std::string const& group) {
  dirty_.emplace(service, sw, group);
}

void StatusView::update() {
  changes_.clear();
  placed_.clear();
  withdrawn_.clear();
  for (auto const& [service, sw, group] : std::exchange(dirty_, {})) read(service, sw, group);
  for (auto const& sw : std::exchange(dirtyPublished_, {})) readPublished(sw);
  std::sort(changes_.begin(), changes_.end(), [](Change const& a, Change const& b) { return a.key < b.key; });
}

// Reads the rows of one scope again and notes how they differ from those it had.
void StatusView::read(std::string const& service, std::string const& sw, std::string const& group) {
  std::map<Key, Row> fresh;
  if (ServiceDecl const* d = w_.s.service(service))
    if (auto const st = w_.mountStatusOf(*d)) {
      auto readGroup = [&](std::string const& system, Kiv::Name const& name,
                           Kiv::PtrConst<ServiceMountGroupStatus> const& g) {
        if (!g) return;
        for (auto m = g->mountStatusIter(); m; ++m)
          fresh.emplace(Key{service, system, str(name), str(m.key())},
                        Row{stateName(m.value()->mountState()), str(m.value()->mountedPath())});
      };
      auto readSystem = [&](Kiv::Name const& name, Kiv::PtrConst<SystemStatus> const& s) {
        if (!s) return;
        if (!group.empty()) return readGroup(str(name), Kiv::Name(group), s->serviceMountGroupStatus(Kiv::Name(group)));
        for (auto g = s->serviceMountGroupStatusIter(); g; ++g) readGroup(str(name), g.key(), g.value());
      };
      if (!sw.empty()) {
        readSystem(Kiv::Name(sw), st->systemStatus(Kiv::Name(sw)));
      } else {
        for (auto s = st->systemStatusIter(); s; ++s) readSystem(s.key(), s.value());
      }
    }
  auto const inScope = [&](Key const& k) {
    return std::get<0>(k) == service && (sw.empty() || std::get<1>(k) == sw) &&
           (group.empty() || std::get<2>(k) == group);
  };
  auto const first = rows_.lower_bound(Key{service, sw, group, ""});
  auto last = first;
  for (; last != rows_.end() && inScope(last->first); ++last) {
    auto const it = fresh.find(last->first);
    if (it == fresh.end()) changes_.push_back({last->first, last->second.state, "absent"});
  }
  for (auto const& [key, row] : fresh) {
    auto const old = rows_.find(key);
    std::string const before = old == rows_.end() ? "absent" : old->second.state;
    if (before != row.state) changes_.push_back({key, before, row.state});
  }
  rows_.erase(first, last);
  rows_.merge(fresh);
}

void StatusView::readPublished(std::string const& sw) {
  std::map<std::string, std::string> fresh;  // path -> service
  if (auto const p = w_.dbPublish->system(Controller::SystemId(sw)))
    for (auto m = p->publishedMountIter(); m; ++m) fresh.emplace(str(m.value().path()), str(m.value().serviceName()));
  for (auto it = published_.lower_bound({sw, ""}); it != published_.end() && it->first == sw;) {
    if (fresh.count(it->second)) {
      ++it;
      continue;
    }
    withdrawn_.push_back(*it);
    it = published_.erase(it);
  }
  for (auto const& [path, service] : fresh)
    if (published_.emplace(sw, path).second) placed_.push_back({{sw, path}, service});
}

}  // namespace Host
