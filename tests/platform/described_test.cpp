// The generic interface, on the types of the model.
#include <gtest/gtest.h>

#include "platform/model/corvelgpioledconfig.h"
#include "platform/model/gpioledsystemconfigdir.h"
#include "platform/model/ledsystemconfigdir.h"
#include "platform/zel/notify/activity.h"
#include "tests/support.h"

namespace {

using Hardware::Gpio::GpioLedConfig;
using Zel::GenericIf;
using Zel::Operation;
using Zel::Ptr;
using Zel::Value;

template <class... V>
Value perform(Zel::Notifier& object, Operation operation, const char* attribute, V&&... arguments) {
  const std::vector<Value> list{Value(std::forward<V>(arguments))...};
  return GenericIf::perform(object, operation, attribute, list);
}

TEST(GenericIf, AllowsOnlyTheOperationsOfTheTable) {
  const auto led = Zel::allocate<GpioLedConfig>("L");
  perform(*led, Operation::set, "ready", true);
  EXPECT_TRUE(led->ready());
  perform(*led, Operation::set, "gpioGreenName", Value::List{"g1", "g2"});
  EXPECT_EQ(perform(*led, Operation::get, "gpioGreenName"), Value(Value::List{"g1", "g2"}));
  EXPECT_EQ(perform(*led, Operation::iterate, "gpioGreenName"), Value(Value::List{"g1", "g2"}));

  const std::tuple<Operation, const char*, std::vector<Value>, const char*> refused[] = {
      {Operation::set,
       "name",
       {"x"},
       "operation set is not supported on 'name' of Zel::Entity; it allows get"},
      {Operation::del, "ready", {}, "it allows get, set"},
      {Operation::invoke, "ready", {}, "operation invoke is not supported"},
      {Operation::set, "ready", {1}, "found a whole number (1), expected true or false"},
      {Operation::set, "ready", {}, "found 0 arguments, expected 1"},
      {Operation::get, "colour", {}, "'colour' is no attribute of Hardware::Gpio::GpioLedConfig"},
  };
  for (const auto& [operation, attribute, arguments, says] : refused) {
    const auto text =
        Support::errorOf([&] { return GenericIf::perform(*led, operation, attribute, arguments); });
    EXPECT_NE(text.find(says), std::string::npos) << text;
  }
  EXPECT_THROW(perform(*led, Operation::set, "name", "x"), Zel::OperationNotSupportedException);
  EXPECT_TRUE(led->ready());
}

TEST(GenericIf, CollectionsMakeFindAndRemoveMembers) {
  const auto dir = Zel::allocate<Hardware::Gpio::GpioLedSystemConfigDir>("map");
  const Value made = perform(*dir, Operation::set, "gpioLeds", "A/1");
  EXPECT_EQ(made, perform(*dir, Operation::get, "gpioLeds", "A/1"));
  EXPECT_EQ(made.as<Value::Object>()->pointer, dir->gpioLeds("A/1"));
  EXPECT_EQ(dir->gpioLeds("A/1")->path(), "map/gpioLeds/A%2F1");
  EXPECT_EQ(perform(*dir, Operation::iterate, "gpioLeds"), Value(Value::List{"A/1"}));
  EXPECT_EQ(perform(*dir, Operation::del, "gpioLeds", "A/1"), made);
  EXPECT_TRUE(dir->gpioLeds().empty());
  EXPECT_EQ(*perform(*dir, Operation::get, "gpioLeds", "A/1").as<Value::Object>(),
            Value::Object(nullptr, false));

  const auto led = Zel::allocate<Hardware::Gpio::CorvelGpioLedConfig>("L");
  const auto pin = Zel::allocate<Hardware::Gpio::CorvelPinConfig>("p");
  perform(*led, Operation::set, "gpioRed", Value::Object{pin, false});
  EXPECT_EQ(led->gpioRed().find("p"), pin);
  EXPECT_EQ(pin->parent(), nullptr) << "referred to, not owned";
  EXPECT_THROW(perform(*led, Operation::set, "gpioRed", Value::Object{pin, true}), Zel::ValueError)
      << "read only";
  EXPECT_THROW(perform(*led, Operation::set, "gpioRed", Value()), Zel::RangeException) << "null ValidPtr";
  EXPECT_THROW(perform(*led, Operation::set, "gpioRed", Value::Object{led, false}), Zel::ValueError);
}

// A type with two collections of one member type.
class Shelf : public Zel::Described<Shelf, Zel::Entity> {
 public:
  using Book = Hardware::Led::LedConfig;
  class NotifieeConst : public Zel::NotifieeOf<Shelf> {};
  static constexpr auto attributes() {
    return std::tuple{
        Zel::attribute::children<&Shelf::read_, NotifieeConst, nullptr, nullptr, nullptr>("read"),
        Zel::attribute::children<&Shelf::unread_, NotifieeConst, nullptr, nullptr, nullptr>("unread")};
  }
  static const Zel::TypeNode& typeNode() {
    static const Zel::TypeNode type = describe("Test::Shelf");
    return type;
  }
  explicit Shelf(Zel::Name name) : Described(name) {}
  Ptr<Book> readIs(Zel::Name name) { return childIs<&Shelf::read_>(name); }
  Ptr<Book> unreadIs(Zel::Name name) { return childIs<&Shelf::unread_>(name); }

 private:
  Zel::PtrMap<Book> read_;
  Zel::PtrMap<Book> unread_;
};

TEST(Entity, APathNamesTheCollectionThatHoldsTheEntity) {
  const auto shelf = Zel::allocate<Shelf>("shelf");
  EXPECT_EQ(shelf->readIs("a")->path(), "shelf/read/a");
  EXPECT_EQ(shelf->unreadIs("a")->path(), "shelf/unread/a");
  const auto loose = Zel::allocate<Shelf::Book>("a");
  loose->parentIs(shelf);
  EXPECT_EQ(loose->path(), "shelf/a");
}

TEST(GenericIf, AMemberIsReplacedInOneStep) {
  const auto dir = Zel::allocate<Hardware::Led::LedSystemConfigDir>("leds");
  const auto before = dir->ledsIs("A");
  const auto after = Zel::allocate<Hardware::Led::LedConfig>("A");
  dir->ledsIs(after);
  EXPECT_EQ(dir->leds("A"), after);
  EXPECT_TRUE(before->zelIsGone());
  EXPECT_EQ(before->parent(), nullptr);
  EXPECT_FALSE(after->zelIsGone());
  EXPECT_NE(Zel::valueToStrepOfRawPtr(before.get()), Zel::valueToStrepOfRawPtr(after.get()));
  EXPECT_EQ(Zel::valueToStrepOfRawPtr(nullptr), "null");
}

}  // namespace
