#include "host/store/rowreader.h"

#include "host/rpc/json.h"
#include "host/store/statefile.h"
#include "platform/zel/core/exception.h"

namespace Host {

namespace {

template <class T, class Make>
const T& remembered(Zel::LastSeen<std::string, T>& last, std::string_view text, Make make) {
  const T* known = last.find(text);
  return known ? *known : last.keep(text, make(text));
}

}  // namespace

Statedb::Row RowReader::read(const Texts& texts) {
  Statedb::Row row{remembered(path_, texts.path, [](auto text) { return Statedb::Path(text); }),
                   remembered(type_, texts.type, [](auto text) { return Zel::Name(text); }),
                   Zel::Name(texts.attribute),
                   {}};
  try {
    row.value = remembered(lastValue(texts.value), texts.value, &parseJson);
  } catch (const Zel::ValueError& error) {
    refuseStateFile(file_, "the value of '" + row.path.text() + "' " + row.attribute.stdString() +
                               " can't be read: " + error.what());
  }
  return row;
}

}  // namespace Host
