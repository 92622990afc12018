#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv/Dir.h"
#include "kiv/Exception.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;

class Leaf : public Kiv::Entity {
 public:
  static Kiv::TypeInfo const& kivTypeInfo() {
    static Kiv::TypeInfo const info{.name = "Test::Leaf", .create = &create};
    return info;
  }
  Kiv::TypeInfo const& kivEntityType() const override { return kivTypeInfo(); }
  explicit Leaf(Kiv::EntityInit const& init) : Entity(init) {}

 private:
  static Kiv::Ptr<Kiv::Entity> create(Kiv::EntityInit const& init) { return Kiv::Ptr<Kiv::Entity>(new Leaf(init)); }
};

Kiv::TypeInfo const kNeedsParams{.name = "Test::NeedsParams", .create = nullptr};

class NameLog : public Kiv::Dir::Notifiee {
 public:
  NameLog(Kiv::Ptr<Kiv::Dir> const& d, std::vector<std::string>* log) : Notifiee(d), log_(log) {}
  void onEntityPtr(Kiv::Name const& name) override {
    // Report whether the member is present when told, as reactors read the current state.
    log_->push_back(name.stdString() + (notifier()->entityPtr(name) ? "+" : "-"));
  }

 private:
  std::vector<std::string>* log_;
};

class EntityDir : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Kiv::typeRegister(Leaf::kivTypeInfo());
    Kiv::typeRegister(kNeedsParams);
  }
  Kiv::Ptr<Kiv::Dir> root = Kiv::Dir::DirIs("root");
};

TEST_F(EntityDir, EntryIsCreatesByTypeNameOnceAndNotifies) {
  std::vector<std::string> log;
  Kiv::Ptr<NameLog> reactor(new NameLog(root, &log));

  Kiv::Ptr<Kiv::Entity> a = root->entryIs(Kiv::Name("a"), "Kiv::Dir");
  EXPECT_TRUE(Kiv::entityCast<Kiv::Dir>(a));
  EXPECT_FALSE(Kiv::entityCast<Leaf>(a));
  EXPECT_EQ(a->parent(), root.ptr());
  EXPECT_EQ(root->entryIs(Kiv::Name("a"), "Kiv::Dir"), a);  // existing member, no new notice
  EXPECT_EQ(root->subdirIs("a"), a);

  Kiv::Ptr<Leaf> leaf = root->entryIs<Leaf>("leaf");
  EXPECT_EQ(Kiv::entityCast<Leaf>(root->entityPtr("leaf")), leaf);

  EXPECT_THROW(root->entryIs(Kiv::Name("b"), "No::Such"), Kiv::RangeException);
  EXPECT_THROW(root->entryIs(Kiv::Name("b"), "Test::NeedsParams"), Kiv::RangeException);
  EXPECT_THROW(root->subdirIs(""), Kiv::RangeException);
  EXPECT_EQ(root->entityPtrs(), 2u);
  EXPECT_THAT(log, ElementsAre("a+", "leaf+"));
}

TEST_F(EntityDir, ReinstantiatingWithAnotherTypeIsRefused) {
  root->entryIs<Leaf>("x");
  EXPECT_THAT([&] { root->subdirIs("x"); },
              ThrowsMessage<Kiv::NameInUseException>(AllOf(StartsWith("Reinstantiating the entity with name x "),
                                                           HasSubstr("_typeName"), HasSubstr("Kiv::Dir"),
                                                           HasSubstr("Test::Leaf"))));
  EXPECT_TRUE(Kiv::entityCast<Leaf>(root->entityPtr("x")));
}

TEST_F(EntityDir, FullNameAndPathLookup) {
  Kiv::Ptr<Kiv::Dir> b = root->subdirIs("a")->subdirIs("b");
  root->entryIs<Leaf>("leaf");
  EXPECT_EQ(b->fullName(), "root/a/b");
  EXPECT_EQ(b->kivStrep(), "<Kiv::Dir root/a/b>");

  EXPECT_EQ(root->entityAtPath("/a//b/"), b);
  EXPECT_EQ(root->entityAtPath(""), root);
  EXPECT_EQ(root->entityAtPath("a/missing"), nullptr);
  EXPECT_EQ(root->entityAtPath("leaf/x"), nullptr);  // a leaf has no members
  EXPECT_EQ(root->entityAtPath("leaf")->fullName(), "root/leaf");
}

TEST_F(EntityDir, RemovedMemberHeldElsewhereLivesOnWithoutParent) {
  std::vector<std::string> log;
  Kiv::Ptr<NameLog> reactor(new NameLog(root, &log));
  Kiv::Ptr<Kiv::Dir> a = root->subdirIs("a");
  Kiv::Ptr<Kiv::Dir> b = a->subdirIs("b");
  log.clear();

  root->entityPtrDel("a");
  root->entityPtrDel("a");  // absent: nothing happens, nobody is told
  EXPECT_THAT(log, ElementsAre("a-"));
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(b->fullName(), "a/b");

  // A new member under the old name is a different entity.
  EXPECT_NE(root->subdirIs("a"), a);
  Kiv::Ptr<Kiv::Dir> p = root->subdirIs("p");
  log.clear();
  root->entityPtrDelAll();
  EXPECT_EQ(root->entityPtrs(), 0u);
  EXPECT_THAT(log, UnorderedElementsAre("a-", "p-"));
  EXPECT_EQ(p->parent(), nullptr);
}

TEST_F(EntityDir, DestroyedParentLeavesHeldMembersParentless) {
  Kiv::Ptr<Kiv::Dir> b = root->subdirIs("a")->subdirIs("b");
  root = nullptr;
  EXPECT_EQ(b->parent(), nullptr);
  EXPECT_EQ(b->fullName(), "b");
}

TEST_F(EntityDir, ReadOnlyReplicaRefusesLocalWrites) {
  Kiv::Ptr<Kiv::Dir> existing = root->subdirIs("existing");
  root->kivReadOnlyIs(true);

  EXPECT_EQ(root->subdirIs("existing"), existing);  // reading an existing member is no write
  EXPECT_THAT([&] { root->subdirIs("fresh"); },
              ThrowsMessage<Kiv::InternalException>(StartsWith("write-update from readonly proxy:")));
  EXPECT_THROW(root->entityPtrDel("existing"), Kiv::InternalException);
  EXPECT_EQ(root->entityPtrs(), 1u);

  Kiv::Ptr<Kiv::Dir> fresh;
  {
    Kiv::ReplicaWriteScope scope;
    fresh = root->subdirIs("fresh");
    Kiv::Ptr<Kiv::Dir> grandchild = fresh->subdirIs("g");
    EXPECT_TRUE(fresh->kivReadOnly());
    EXPECT_TRUE(grandchild->kivReadOnly());
  }
  EXPECT_EQ(root->entityPtrs(), 2u);
  EXPECT_THROW(fresh->subdirIs("h"), Kiv::InternalException);
  EXPECT_NO_THROW(existing->subdirIs("h"));  // created before: still writable
}

}  // namespace
