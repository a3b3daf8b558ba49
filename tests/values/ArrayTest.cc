#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qelss/platform/xpc.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "values/ContainerTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;

// The array's elements as described texts, which is how the tests compare them.
std::vector<std::string> Texts(const IArray& array) {
  std::vector<std::string> texts;
  EXPECT_EQ(array.Iterate([&](const auto& value, unsigned int index, bool&) {
    EXPECT_EQ(index, texts.size());
    texts.push_back(Describe(*value));
  }),
            kOk);
  return texts;
}

using Strings = std::vector<std::string>;

TEST(Array, InsertUpToTheCount) {
  auto array = MakeArray({Int(1), Int(2)});
  EXPECT_EQ(array->Insert(2, Int(3)), kOk);
  EXPECT_EQ(array->Insert(0, Int(0)), kOk);
  EXPECT_EQ(array->Insert(5, Int(9)), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(array->Insert(0, nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(Texts(*array), (Strings{"0", "1", "2", "3"}));
}

TEST(Array, IndexedAccessStopsAtTheCount) {
  auto empty = MakeArray();
  auto kept = Int(7);
  std::shared_ptr<IValue> out = kept;
  EXPECT_EQ(empty->Get(0, out), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(out, kept);

  auto one = Int(1);
  auto array = MakeArray({one, Int(2)});
  EXPECT_EQ(array->Get(0, out), kOk);
  EXPECT_EQ(out, one);
  EXPECT_EQ(array->Set(2, Int(5)), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(array->Set(1, Int(5)), kOk);
  EXPECT_EQ(array->RemoveAt(2), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(array->RemoveAt(0), kOk);
  EXPECT_EQ(Texts(*array), Strings{"5"});
  array->RemoveAll();
  EXPECT_EQ(array->GetCount(), 0u);
}

TEST(Array, RemoveTakesEveryEqualElement) {
  auto array = MakeArray({Int(1), Text("a"), Int(1), Int(2), Int(1)});
  EXPECT_EQ(array->Remove(Int(1)), kOk);
  EXPECT_EQ(Texts(*array), (Strings{"a", "2"}));
  EXPECT_EQ(array->Remove(Int(1)), make_error_code(kNotFound));
  EXPECT_EQ(array->Remove(nullptr), make_error_code(kInvalidArgument));

  auto withHashes = MakeArray(
      {MakeHash({{"k", Int(1)}}), Int(1), MakeHash({{"k", Int(1)}}), MakeHash({{"k", Int(2)}})});
  EXPECT_EQ(withHashes->Remove(MakeHash({{"k", Int(1)}})), kOk);
  ASSERT_EQ(withHashes->GetCount(), 2u);
  EXPECT_EQ(withHashes->Contains(MakeHash({{"k", Int(2)}})), kOk);
  EXPECT_EQ(withHashes->Contains(Int(1)), kOk);
}

TEST(Array, ContainsComparesByValue) {
  EXPECT_EQ(MakeArray()->Contains(Int(1)), make_error_code(kNotFound));
  auto array = MakeArray({Int(1), Text("a"), MakeArray({Int(2)})});
  EXPECT_EQ(array->Contains(Text("a")), kOk);
  EXPECT_EQ(array->Contains(MakeArray({Int(2)})), kOk);
  EXPECT_EQ(array->Contains(MakeArray({Int(3)})), make_error_code(kNotFound));
  EXPECT_EQ(array->Contains(Text("b")), make_error_code(kNotFound));
  EXPECT_EQ(array->Contains(nullptr), make_error_code(kInvalidArgument));
}

TEST(Array, AppendForms) {
  auto array = MakeArray({Int(1)});
  EXPECT_EQ(array->Append(ArrayElements{Int(2), nullptr}), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Append(ArrayElements{Int(2), Int(3)}), kOk);
  EXPECT_EQ(array->Append(std::shared_ptr<IArray>()), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Append(array), kOk);
  EXPECT_EQ(Texts(*array), (Strings{"1", "2", "3", "1", "2", "3"}));

  auto other = MakeArray({Text("shared")});
  EXPECT_EQ(array->Append(other), kOk);
  std::shared_ptr<IValue> last;
  std::shared_ptr<IValue> original;
  ASSERT_EQ(array->Get(6, last), kOk);
  ASSERT_EQ(other->Get(0, original), kOk);
  EXPECT_EQ(last, original);

  const std::shared_ptr<IValue> self = array;
  EXPECT_EQ(array->Append(self), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Append(ArrayElements{Int(8), self}), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Insert(0, self), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Set(0, self), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->GetCount(), 7u);
}

TEST(Array, CopyAssignmentClonesSharingAssignmentDoesNot) {
  auto element = MakeHash({{"n", Int(1)}});
  auto source = MakeArray({element});
  auto copied = MakeArray({Int(0)});
  *copied = *source;
  std::shared_ptr<IValue> first;
  ASSERT_EQ(copied->Get(0, first), kOk);
  EXPECT_NE(first, element);
  EXPECT_TRUE(*first == *element);

  auto shared = MakeArray();
  *shared = std::move(*source);
  ASSERT_EQ(shared->Get(0, first), kOk);
  EXPECT_EQ(first, element);
  EXPECT_EQ(source->GetCount(), 1u);

  EXPECT_EQ(copied->Assign(nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(copied->Assign(MakeArray({Int(4), Int(5)})), kOk);
  EXPECT_EQ(Texts(*copied), (Strings{"4", "5"}));
}

TEST(Array, CloneIsDeepAndIndependent) {
  auto inner = MakeArray({Int(1)});
  auto array = MakeArray({inner, Text("x")});
  std::shared_ptr<IValue> value;
  ASSERT_EQ(array->Clone(value), kOk);
  auto clone = std::dynamic_pointer_cast<IArray>(value);
  ASSERT_TRUE(clone);
  EXPECT_TRUE(*clone == *array);
  std::shared_ptr<IValue> clonedInner;
  ASSERT_EQ(clone->Get(0, clonedInner), kOk);
  EXPECT_EQ(std::dynamic_pointer_cast<IArray>(clonedInner)->Append(Int(2)), kOk);
  EXPECT_EQ(inner->GetCount(), 1u);
  EXPECT_FALSE(*clone == *array);
}

TEST(Array, EqualityIsPositionByPosition) {
  EXPECT_TRUE(*MakeArray({Int(1), Text("a")}) == *MakeArray({Int(1), Text("a")}));
  EXPECT_FALSE(*MakeArray({Int(1), Text("a")}) == *MakeArray({Text("a"), Int(1)}));
  EXPECT_FALSE(*MakeArray({Int(1)}) == *MakeArray({Int(1), Int(1)}));
  EXPECT_FALSE(*MakeArray({Int(1), Int(1)}) == *MakeArray({Int(1)}));
  EXPECT_FALSE(*MakeArray() == *MakeHash());
  EXPECT_TRUE(*MakeArray() != *Int(1));
}

TEST(Array, IterateStopsOnRequest) {
  auto array = MakeArray({Int(1), Int(2), Int(3)});
  std::vector<unsigned int> seen;
  EXPECT_EQ(array->Iterate([&](const auto&, unsigned int index, bool& stop) {
    seen.push_back(index);
    EXPECT_EQ(array->Append(Int(9)), kOk);  // the walk sees the array as it began
    stop = index == 1;
  }),
            kOk);
  EXPECT_EQ(seen, (std::vector<unsigned int>{0, 1}));
  EXPECT_EQ(array->GetCount(), 5u);
}

TEST(Array, DescriptionIndentsEveryElement) {
  EXPECT_EQ(Describe(*MakeArray()), "{\n\n}");
  auto array = MakeArray({Int(1), Text("x"), MakeHash({{"k", Int(2)}}), MakeArray()});
  EXPECT_EQ(Describe(*array),
            "{\n"
            "       1,\n"
            "       x,\n"
            "\n"
            "      {\n"
            "                     k : 2\n"
            "      },\n"
            "\n"
            "      {\n"
            "\n"
            "      }\n"
            "}");
}

TEST(Array, PlatformArrayRoundTrip) {
  auto array = MakeArray({Int(3), Text("t"), MakeHash({{"k", MakeArray({Int(1)})}})});
  xpc_object_t platform = nullptr;
  ASSERT_EQ(array->CopyXPCObject(&platform), kOk);
  ASSERT_EQ(xpc_get_type(platform), XPC_TYPE_ARRAY);
  ASSERT_EQ(xpc_array_get_count(platform), 3u);
  EXPECT_EQ(xpc_int64_get_value(xpc_array_get_value(platform, 0)), 3);
  EXPECT_EQ(xpc_get_type(xpc_array_get_value(platform, 2)), XPC_TYPE_DICTIONARY);

  std::shared_ptr<IArray> rebuilt;
  void* object = platform;
  ASSERT_EQ(ArrayFactory::Create(rebuilt, object), kOk);
  EXPECT_TRUE(*rebuilt == *array);
  xpc_release(platform);

  xpc_object_t dictionary = xpc_dictionary_create(nullptr, nullptr, 0);
  void* notArray = dictionary;
  EXPECT_EQ(ArrayFactory::Create(rebuilt, notArray), make_error_code(kInvalidType));
  xpc_release(dictionary);
  EXPECT_TRUE(*rebuilt == *array);
}

}  // namespace
}  // namespace QelSS
