#ifndef QUELM_FOUNDATION_EVENT_OMCALLBACK_H_
#define QUELM_FOUNDATION_EVENT_OMCALLBACK_H_

#include <cstdint>

struct OmEvent {
  // Argument of every event callback: the event happened, or a timeout was
  // withdrawn before it fired. Handlers return at once on anything but fired.
  enum cbdispatch : uint32_t { fired = 0, removed = 1 };
};

template <typename Arg>
class OmCallback {
 public:
  virtual ~OmCallback() = default;
  virtual void Dispatch(Arg a) = 0;
};

// Calls (object->*member)(this, a).
template <typename Arg, typename Class>
class OmSimpleCallback : public OmCallback<Arg> {
 public:
  using Member = void (Class::*)(OmCallback<Arg>*, Arg);
  OmSimpleCallback(Class* object, Member member) : object_(object), member_(member) {}
  void Dispatch(Arg a) override { (object_->*member_)(this, a); }

 private:
  Class* object_;
  Member member_;
};

template <typename Data>
class OmData {
 public:
  explicit OmData(const Data& d) : data_(d) {}
  const Data& GetData() const { return data_; }

 protected:
  Data data_;
};

template <typename Arg, typename Data>
class OmBaseCallbackWithData : public OmCallback<Arg>, public OmData<Data> {
 public:
  explicit OmBaseCallbackWithData(const Data& d) : OmData<Data>(d) {}
};

// Calls (object->*member)(this, a, data); the datum is fixed at construction.
template <typename Arg, typename Class, typename Data>
class OmCallbackWithData : public OmBaseCallbackWithData<Arg, Data> {
 public:
  using Member = void (Class::*)(OmCallback<Arg>*, Arg, Data);
  OmCallbackWithData(Class* object, Member member, const Data& d)
      : OmBaseCallbackWithData<Arg, Data>(d), object_(object), member_(member) {}
  void Dispatch(Arg a) override { (object_->*member_)(this, a, this->data_); }

 private:
  Class* object_;
  Member member_;
};

// Calls function(this, a).
template <typename Arg>
class OmStaticCallback : public OmCallback<Arg> {
 public:
  using Function = void (*)(OmCallback<Arg>*, Arg);
  explicit OmStaticCallback(Function f) : function_(f) {}
  void Dispatch(Arg a) override { function_(this, a); }

 private:
  Function function_;
};

using OmEventCallback = OmCallback<OmEvent::cbdispatch>;

#endif  // QUELM_FOUNDATION_EVENT_OMCALLBACK_H_
