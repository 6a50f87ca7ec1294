// Tessera: shared tables (hash maps written by one process, read by others) and their views.
//
// In the platform these tables live in shared memory; here a Table is an in-process map with
// the same contract: one writer, readers through TesseraMap views, per-key notification of
// every change. A read-only view refuses every mutation with Cinder::NoPermissionException.
// A reader that finds an entry inconsistent gets Cinder::CorruptionDetectedException from the
// iteration and reports it with corruptionDetected(), which writes a corruption report file
// and raises the exception again.
#pragma once

#include <string>
#include <utility>

#include "mox/Entity.h"
#include "mox/Error.h"
#include "mox/HashMap.h"
#include "mox/Larder.h"

namespace Tessera {

namespace Util {
// Writes "<dir>/<table>.corruption" with the message; returns the file's path ("" on error).
std::string writeCorruptionFile(std::string const& table, std::string const& message);
void corruptionDirIs(std::string dir);
std::string const& corruptionDir();
}  // namespace Util

class TesseraBase : public Mox::Notifier {
public:
   explicit TesseraBase(std::string name) : name_(std::move(name)) {}
   std::string const& tableName() const { return name_; }
   virtual size_t size() const = 0;
   // Reports an inconsistency found by a reader: writes the report file, then throws.
   [[noreturn]] void corruptionDetected(std::string const& message) const;

private:
   std::string name_;
};

template <class K, class V>
class Table : public TesseraBase {
   struct Entry {
      V value;
      bool corrupt = false;
   };
   using Map = Mox::HashMap<K, Entry>;

public:
   class NotifieeConst : public Mox::NotifieeOf<Table> {
   public:
      // The entry of k was written or removed (then find(k) is null).
      virtual void onEntry(K const&) {}
   };

   class const_iterator {
   public:
      const_iterator(Table const* t, typename Map::const_iterator it) : t_(t), it_(it) { check(); }
      std::pair<K const&, V const&> operator*() const { return {it_->first, it_->second.value}; }
      K const& key() const { return it_->first; }
      V const& value() const { return it_->second.value; }
      const_iterator& operator++() {
         ++it_;
         check();
         return *this;
      }
      bool operator==(const_iterator const& o) const { return it_ == o.it_; }

   private:
      void check() const {
         if (it_ != t_->map_.end() && it_->second.corrupt) {
            throw Cinder::CorruptionDetectedException("inconsistent entry in Tessera table " +
                                                      t_->tableName());
         }
      }
      Table const* t_;
      typename Map::const_iterator it_;
   };

   explicit Table(std::string name) : TesseraBase(std::move(name)) {}

   size_t size() const override { return map_.size(); }
   V const* find(K const& k) const {
      auto const* e = map_.find(k);
      return e ? &e->value : nullptr;
   }
   // The value of k, or a default-constructed V when absent.
   V get(K const& k) const {
      auto const* v = find(k);
      return v ? *v : V();
   }
   const_iterator begin() const { return const_iterator(this, map_.begin()); }
   const_iterator end() const { return const_iterator(this, map_.end()); }

   // Writer side. Each real change is delivered as onEntry(k).
   void set(K const& k, V const& v) {
      auto [e, inserted] = map_.emplace(k, Entry{v, false});
      if (!inserted) {
         if (e->value == v && !e->corrupt) {
            e->value = v;  // quietly: what equality leaves out (a time) stays current
            return;
         }
         e->value = v;
         e->corrupt = false;
      }
      notifyEntry(k);
   }
   bool remove(K const& k) {
      if (!map_.erase(k)) return false;
      notifyEntry(k);
      return true;
   }
   void cleanup() {
      for (auto const& k : map_.keys())
         remove(k);
   }
   void validate() const {
      for (auto it = begin(); it != end(); ++it) {
      }
   }
   void validateFiles() const {}
   void reserve(size_t n) { map_.reserve(n); }

   // Marks an entry inconsistent, as a torn write in shared memory would leave it (tests).
   void corruptEntryIs(K const& k) {
      if (auto* e = map_.find(k)) e->corrupt = true;
   }

private:
   void notifyEntry(K const& k) {
      this->template notifyEach<NotifieeConst>([&](NotifieeConst* n) { n->onEntry(k); });
   }
   Map map_;
};

// The placeholder table of a view that is not mounted yet: always empty.
template <class K, class V>
class TesseraBaseDummy : public Table<K, V> {
public:
   TesseraBaseDummy() : Table<K, V>("dummy") {}
   static Mox::Ptr<Table<K, V>> instance() {
      static Mox::Ptr<Table<K, V>> dummy = Mox::make<TesseraBaseDummy>();
      return dummy;
   }
};

// A typed view of a table, read-only or writable.
template <class K, class V>
class TesseraMap {
public:
   using TableType = Table<K, V>;
   using const_iterator = typename TableType::const_iterator;

   TesseraMap() : table_(TesseraBaseDummy<K, V>::instance()), readOnly_(true), dummy_(true) {}
   static TesseraMap readOnly(Mox::Ptr<TableType const> const& t) {
      return TesseraMap(Mox::Ptr<TableType>(const_cast<TableType*>(t.ptr())), true);
   }
   static TesseraMap writable(Mox::Ptr<TableType> const& t) { return TesseraMap(t, false); }

   bool isReadOnly() const { return readOnly_; }
   bool isDummy() const { return dummy_; }
   Mox::Ptr<TableType const> table() const { return table_; }

   size_t size() const { return table_->size(); }
   V const* find(K const& k) const { return table_->find(k); }
   V get(K const& k) const { return table_->get(k); }
   const_iterator begin() const { return table_->begin(); }
   const_iterator end() const { return table_->end(); }

   void set(K const& k, V const& v) const {
      refuseIfReadOnly("write");
      table_->set(k, v);
   }
   void remove(K const& k) const {
      refuseIfReadOnly("remove");
      table_->remove(k);
   }
   void cleanup() const {
      refuseIfReadOnly("cleanup");
      table_->cleanup();
   }
   void validateFiles() const {
      refuseIfReadOnly("validateFiles");
      table_->validateFiles();
   }
   void validate() const {
      refuseIfReadOnly("validate");
      table_->validate();
   }
   [[noreturn]] void corruptionDetected(std::string const& message) const {
      table_->corruptionDetected(message);
   }

private:
   TesseraMap(Mox::Ptr<TableType> t, bool ro) : table_(std::move(t)), readOnly_(ro) {}
   void refuseIfReadOnly(char const* op) const {
      if (readOnly_) {
         throw Cinder::NoPermissionException(std::string(op) + " to read-only Tessera table");
      }
   }
   Mox::Ptr<TableType> table_;
   bool readOnly_;
   bool dummy_ = false;
};

}  // namespace Tessera

namespace MoxTessera {

// Mounts an entity that holds tables from the state database by path.
class Mount : public Mox::PtrInterface {
public:
   explicit Mount(Mox::Ptr<Larder::EntityManager const> mgr) : mgr_(std::move(mgr)) {}
   // Looks the path up; false (and nothing mounted) when nothing is published there.
   bool doMount(std::string const& path);
   void doUnmount();
   bool mounted() const { return static_cast<bool>(entity_); }
   std::string const& path() const { return path_; }
   Mox::Ptr<Mox::Entity> getEntity() const { return entity_; }
   template <class T>
   Mox::Ptr<T> getEntity() const {
      return Mox::ptrDynamicCast<T>(entity_);
   }

private:
   Mox::Ptr<Larder::EntityManager const> mgr_;
   std::string path_;
   Mox::Ptr<Mox::Entity> entity_;
};

}  // namespace MoxTessera
