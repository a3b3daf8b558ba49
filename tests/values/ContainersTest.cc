#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qelss/platform/xpc.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;
using Strings = std::vector<std::string>;

Strings KeysOf(const IHash& hash) {
  Strings keys;
  EXPECT_EQ(hash.Iterate([&](const auto& key, const auto&, bool&) { keys.emplace_back(key->GetCString()); }),
            kOk);
  return keys;
}

// The array's elements as described texts, which is how the tests compare them.
Strings Texts(const IArray& array) {
  Strings texts;
  EXPECT_EQ(array.Iterate([&](const auto& value, unsigned int index, bool&) {
    EXPECT_EQ(index, texts.size());
    texts.push_back(Describe(*value));
  }),
            kOk);
  return texts;
}

std::shared_ptr<IHash> HashAt(const IHash& hash, const char* key) {
  return std::dynamic_pointer_cast<IHash>(GetKey(hash, key));
}

std::shared_ptr<IValue> At(const IArray& array, unsigned index) {
  std::shared_ptr<IValue> value;
  EXPECT_EQ(array.Get(index, value), kOk);
  return value;
}

TEST(Hash, KeysInByteOrderAndArgumentsChecked) {
  auto hash = MakeHash({{"b", Int(1)}, {"a", Int(2)}, {"B", Int(3)}, {"k", Int(1)}});
  EXPECT_EQ(KeysOf(*hash), (Strings{"B", "a", "b", "k"}));
  auto two = Int(2);
  EXPECT_EQ(hash->Set(Key("k"), two), kOk);  // replaces and shares
  EXPECT_EQ(hash->GetCount(), 4u);
  EXPECT_EQ(GetKey(*hash, "k"), two);

  auto kept = Int(7);
  std::shared_ptr<IValue> out = kept;
  EXPECT_EQ(hash->Get("absent", out), make_error_code(kNotFound));
  EXPECT_EQ(out, kept);
  EXPECT_EQ(hash->Contains("absent"), make_error_code(kNotFound));
  EXPECT_EQ(hash->Delete("absent"), make_error_code(kNotFound));
  EXPECT_EQ(hash->Delete(Key("k")), kOk);
  EXPECT_EQ(hash->Contains(Key("k")), make_error_code(kNotFound));

  const char* noText = nullptr;
  const std::shared_ptr<IString> noKey;
  const std::error_code invalid = make_error_code(kInvalidArgument);
  EXPECT_EQ(hash->Set(noText, Int(1)), invalid);
  EXPECT_EQ(hash->Set(noKey, Int(1)), invalid);
  EXPECT_EQ(hash->Set("k", nullptr), invalid);
  EXPECT_EQ(hash->Set("self", hash), invalid);
  EXPECT_EQ(hash->Get(noKey, out), invalid);
  EXPECT_EQ(hash->Contains(noText), invalid);
  EXPECT_EQ(hash->Delete(noKey), invalid);
  EXPECT_EQ(hash->Iterate(nullptr), invalid);
  EXPECT_EQ(hash->Assign(nullptr), invalid);
  EXPECT_EQ(hash->Merge(nullptr), invalid);
  EXPECT_EQ(hash->CopyXPCObject(nullptr), invalid);
  EXPECT_EQ(hash->GetCount(), 3u);

  HashEntries entries;  // unusable entries are dropped
  entries.emplace(Key("kept"), Int(1));
  entries.emplace(Key("null"), nullptr);
  entries.emplace(Key("self"), hash);
  hash->SetEntries(std::move(entries));
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ(KeysOf(*hash), Strings{"kept"});
}

TEST(Hash, IterateStopsOnRequestAndMayChangeTheHash) {
  auto hash = MakeHash({{"a", Int(1)}, {"b", Int(2)}, {"c", Int(3)}});
  int visited = 0;
  EXPECT_EQ(hash->Iterate([&](const auto& key, const auto&, bool& stop) {
    ++visited;
    // Changing the hash from inside the walk neither deadlocks nor disturbs it.
    EXPECT_EQ(hash->Set((std::string(key->GetCString()) + "2").c_str(), Int(0)), kOk);
    stop = visited == 2;
  }),
            kOk);
  EXPECT_EQ(KeysOf(*hash), (Strings{"a", "a2", "b", "b2", "c"}));
}

TEST(Hash, ClonesAndCopyAssignmentsAreDeepMovesTakeOver) {
  auto inner = MakeHash({{"n", Int(1)}});
  auto hash = MakeHash({{"inner", inner}, {"s", Text("x")}});
  auto clone = std::dynamic_pointer_cast<IHash>(CloneOf(hash));
  EXPECT_TRUE(*clone == *hash);
  EXPECT_NE(GetKey(*clone, "s"), GetKey(*hash, "s"));
  EXPECT_EQ(HashAt(*clone, "inner")->Set("n", Int(2)), kOk);
  EXPECT_EQ(clone->Set("added", Int(3)), kOk);
  EXPECT_EQ(IntAt(*inner, "n"), 1);
  EXPECT_FALSE(*clone == *hash);

  auto target = MakeHash({{"old", Int(0)}});
  *target = *hash;
  EXPECT_EQ(KeysOf(*target), (Strings{"inner", "s"}));
  EXPECT_NE(GetKey(*target, "inner"), inner);
  *target = *target;
  EXPECT_EQ(target->GetCount(), 2u);
  *target = std::move(*hash);
  EXPECT_EQ(hash->GetCount(), 0u);
  EXPECT_EQ(GetKey(*target, "inner"), inner);
  EXPECT_EQ(target->Assign(MakeHash({{"b", Int(2)}})), kOk);
  EXPECT_EQ(KeysOf(*target), Strings{"b"});
}

TEST(Hash, EqualityIsByKeysAndValuesAtEveryDepth) {
  auto a = MakeHash({{"x", Int(1)}, {"y", MakeHash({{"z", Text("t")}})}});
  auto b = MakeHash({{"y", MakeHash({{"z", Text("t")}})}, {"x", Int(1)}});
  EXPECT_TRUE(*a == *b && !(*a != *b));
  EXPECT_EQ(HashAt(*b, "y")->Set("z", Text("u")), kOk);
  EXPECT_FALSE(*a == *b);
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}}) == *MakeHash({{"x", Int(1)}, {"w", Int(1)}}));
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}, {"w", Int(1)}}) == *MakeHash({{"x", Int(1)}}));
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}}) == *MakeHash({{"y", Int(1)}}));
  EXPECT_FALSE(*MakeHash() == *MakeArray() || *MakeHash() == *Int(0));
  EXPECT_TRUE(*MakeHash() == *MakeHash());
}

TEST(Hash, MergeAddsWhatIsMissingAtEveryDepthAndKeepsWhatIsThere) {
  auto shared = Int(1);
  auto target = MakeHash({{"a", MakeHash({{"b", MakeHash({{"kept", Int(1)}})}})}});
  auto source = MakeHash(
      {{"a", MakeHash({{"b", MakeHash({{"kept", Int(9)}, {"deep", Int(3)}})}, {"mid", Int(2)}})},
       {"top", shared}});
  EXPECT_EQ(target->Merge(source), kOk);
  auto b = HashAt(*HashAt(*target, "a"), "b");
  EXPECT_EQ(GetKey(*target, "top"), shared);
  EXPECT_EQ(IntAt(*HashAt(*target, "a"), "mid"), 2);
  EXPECT_EQ(IntAt(*b, "deep"), 3);
  EXPECT_EQ(IntAt(*b, "kept"), 1);

  auto scalar = MakeHash({{"a", Int(1)}});
  EXPECT_EQ(scalar->Merge(MakeHash({{"a", MakeHash({{"b", Int(1)}})}})),
            make_error_code(kInvalidData));
  EXPECT_EQ(scalar->Merge(MakeHash({{"a", MakeArray()}})), make_error_code(kInvalidData));
}

TEST(Hash, MergeOfArraysMergesHashElementsByPosition) {
  auto target = MakeHash({{"list", MakeArray({MakeHash({{"a", Int(1)}}), Int(5)})}});
  auto source = MakeHash({{"list", MakeArray({MakeHash({{"a", Int(9)}, {"b", Int(2)}}), Int(6)})}});
  EXPECT_EQ(target->Merge(source), kOk);
  auto list = std::dynamic_pointer_cast<IArray>(GetKey(*target, "list"));
  ASSERT_EQ(list->GetCount(), 2u);
  EXPECT_TRUE(*At(*list, 0) == *MakeHash({{"a", Int(1)}, {"b", Int(2)}}));

  // A hash element facing a scalar, or beyond the end of a non-empty array,
  // has nothing to merge into.
  EXPECT_EQ(target->Merge(MakeHash({{"list", MakeArray({Int(0), MakeHash()})}})),
            make_error_code(kInvalidData));
  EXPECT_EQ(target->Merge(MakeHash({{"list", MakeArray({MakeHash(), Int(7), Int(8), MakeHash()})}})),
            make_error_code(kIndexOutOfRange));
  // Into an empty array, the first hash element is inserted, the second fails.
  auto first = MakeHash({{"a", Int(1)}});
  auto empty = MakeHash({{"list", MakeArray()}});
  EXPECT_EQ(empty->Merge(MakeHash({{"list", MakeArray({first, MakeHash({{"b", Int(2)}})})}})),
            make_error_code(kIndexOutOfRange));
  list = std::dynamic_pointer_cast<IArray>(GetKey(*empty, "list"));
  ASSERT_EQ(list->GetCount(), 1u);
  EXPECT_EQ(At(*list, 0), first);
}

TEST(Containers, DescriptionsIndentNestedContainers) {
  EXPECT_EQ(Describe(*MakeHash()), "{\n\n}");
  EXPECT_EQ(Describe(*MakeHash(), 3), "\n  {\n\n  }");
  EXPECT_EQ(Describe(*MakeArray()), "{\n\n}");
  auto hash = MakeHash({{"a", Int(1)},
                        {"a-key-longer-than-15", MakeHash({{"c", Text("x")}})},
                        {"list", MakeArray({Int(1), MakeHash({{"d", Int(2)}}), MakeArray()})}});
  EXPECT_EQ(Describe(*hash),
            "{\n"
            "              a : 1,\n"
            "a-key-longer-than-15 : \n"
            "              {\n"
            "                             c : x\n"
            "              },\n"
            "           list : \n"
            "              {\n"
            "                      1,\n"
            "\n"
            "                     {\n"
            "                                    d : 2\n"
            "                     },\n"
            "\n"
            "                     {\n"
            "\n"
            "                     }\n"
            "              }\n"
            "}");
}

TEST(Containers, PlatformObjectsRoundTripAndOtherKindsAreRefused) {
  auto hash = MakeHash({{"n", Int(-4)},
                        {"inner", MakeHash({{"deep", Int(1)}})},
                        {"list", MakeArray({Text("e"), MakeHash({{"k", MakeArray({Int(1)})}})})}});
  xpc_object_t dictionary = nullptr;
  ASSERT_EQ(hash->CopyXPCObject(&dictionary), kOk);
  ASSERT_EQ(xpc_get_type(dictionary), XPC_TYPE_DICTIONARY);
  EXPECT_EQ(xpc_dictionary_get_int64(dictionary, "n"), -4);
  EXPECT_EQ(xpc_dictionary_get_int64(xpc_dictionary_get_value(dictionary, "inner"), "deep"), 1);
  xpc_object_t list = xpc_dictionary_get_value(dictionary, "list");
  ASSERT_EQ(xpc_get_type(list), XPC_TYPE_ARRAY);
  EXPECT_EQ(xpc_get_type(xpc_array_get_value(list, 1)), XPC_TYPE_DICTIONARY);

  std::shared_ptr<IHash> rebuilt;
  std::shared_ptr<IArray> rebuiltList;
  ASSERT_EQ(HashFactory::Create(rebuilt, static_cast<void*>(dictionary)), kOk);
  ASSERT_EQ(ArrayFactory::Create(rebuiltList, static_cast<void*>(list)), kOk);
  EXPECT_TRUE(*rebuilt == *hash);
  EXPECT_TRUE(*rebuiltList == *GetKey(*hash, "list"));

  auto keptHash = rebuilt;
  auto keptList = rebuiltList;
  xpc_object_t number = xpc_int64_create(1);
  xpc_dictionary_set_value(dictionary, "error", XPC_ERROR_CONNECTION_INVALID);
  for (xpc_object_t wrong : {xpc_object_t{nullptr}, number, dictionary}) {
    EXPECT_EQ(HashFactory::Create(rebuilt, static_cast<void*>(wrong)), make_error_code(kInvalidType));
  }
  EXPECT_EQ(ArrayFactory::Create(rebuiltList, static_cast<void*>(dictionary)),
            make_error_code(kInvalidType));
  EXPECT_TRUE(rebuilt == keptHash && rebuiltList == keptList);
  xpc_release(number);
  xpc_release(dictionary);
}

// A hash reached again through another container cannot be refused when it
// is set; walks of it stop at the nesting limit instead of overflowing.
TEST(Containers, CycleThroughAnotherContainerEndsInRefusal) {
  auto outer = MakeHash();
  auto inner = MakeHash({{"outer", outer}});
  ASSERT_EQ(outer->Set("inner", inner), kOk);
  std::shared_ptr<IValue> clone;
  std::string text;
  EXPECT_EQ(outer->Clone(clone), make_error_code(kOperationRefused));
  EXPECT_EQ(outer->Description(text), make_error_code(kOperationRefused));
  EXPECT_FALSE(*outer == *outer);
  EXPECT_EQ(outer->Merge(outer), make_error_code(kOperationRefused));
  inner->RemoveAll();  // breaks the cycle so that both are freed

  auto deep = MakeHash({{"leaf", Int(1)}});
  for (int level = 0; level < 100; ++level) deep = MakeHash({{"next", deep}});
  EXPECT_TRUE(*CloneOf(deep) == *deep);  // ordinary depths are walked in full
}

TEST(Array, PositionsStopAtTheCount) {
  auto array = MakeArray({Int(1), Int(2)});
  EXPECT_EQ(array->Insert(2, Int(3)), kOk);
  EXPECT_EQ(array->Insert(0, Int(0)), kOk);
  EXPECT_EQ(array->Insert(5, Int(9)), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(array->Set(4, Int(5)), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(array->RemoveAt(4), make_error_code(kIndexOutOfRange));
  auto kept = Int(7);
  std::shared_ptr<IValue> out = kept;
  EXPECT_EQ(array->Get(4, out), make_error_code(kIndexOutOfRange));
  EXPECT_EQ(out, kept);
  EXPECT_EQ(Texts(*array), (Strings{"0", "1", "2", "3"}));
  EXPECT_EQ(array->Set(1, Int(5)), kOk);
  EXPECT_EQ(array->RemoveAt(0), kOk);
  EXPECT_EQ(Texts(*array), (Strings{"5", "2", "3"}));
  array->RemoveAll();
  EXPECT_EQ(array->GetCount(), 0u);
}

TEST(Array, RemoveAndContainsCompareByValue) {
  auto array = MakeArray({Int(1), Text("a"), Int(1), MakeHash({{"k", Int(1)}}), Int(1),
                          MakeHash({{"k", Int(1)}}), MakeArray({Int(2)})});
  EXPECT_EQ(array->Contains(MakeArray({Int(2)})), kOk);
  EXPECT_EQ(array->Contains(MakeArray({Int(3)})), make_error_code(kNotFound));
  EXPECT_EQ(array->Remove(Int(1)), kOk);  // every equal element
  EXPECT_EQ(array->Remove(MakeHash({{"k", Int(1)}})), kOk);
  EXPECT_EQ(Texts(*array).size(), 2u);
  EXPECT_EQ(array->Remove(Int(1)), make_error_code(kNotFound));
  EXPECT_EQ(array->Contains(Text("a")), kOk);
  EXPECT_EQ(array->Contains(Text("b")), make_error_code(kNotFound));
  EXPECT_EQ(MakeArray()->Contains(Int(1)), make_error_code(kNotFound));
  const std::error_code invalid = make_error_code(kInvalidArgument);
  EXPECT_EQ(array->Remove(nullptr), invalid);
  EXPECT_EQ(array->Contains(nullptr), invalid);
  EXPECT_EQ(array->Insert(0, nullptr), invalid);
}

TEST(Array, AppendFormsShareElementsAndRefuseTheArrayItself) {
  auto array = MakeArray({Int(1)});
  EXPECT_EQ(array->Append(ArrayElements{Int(2), nullptr}), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Append(ArrayElements{Int(2), Int(3)}), kOk);
  EXPECT_EQ(array->Append(std::shared_ptr<IArray>()), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->Append(array), kOk);
  EXPECT_EQ(Texts(*array), (Strings{"1", "2", "3", "1", "2", "3"}));
  auto other = MakeArray({Text("shared")});
  EXPECT_EQ(array->Append(other), kOk);
  EXPECT_EQ(At(*array, 6), At(*other, 0));

  const std::shared_ptr<IValue> self = array;
  const std::error_code invalid = make_error_code(kInvalidArgument);
  EXPECT_EQ(array->Append(self), invalid);
  EXPECT_EQ(array->Append(ArrayElements{Int(8), self}), invalid);
  EXPECT_EQ(array->Insert(0, self), invalid);
  EXPECT_EQ(array->Set(0, self), invalid);
  EXPECT_EQ(array->GetCount(), 7u);
}

TEST(Array, ClonesAndCopiesAreDeepSharingAssignmentIsNot) {
  auto element = MakeHash({{"n", Int(1)}});
  auto source = MakeArray({element, Text("x")});
  auto clone = std::dynamic_pointer_cast<IArray>(CloneOf(source));
  EXPECT_TRUE(*clone == *source);
  EXPECT_EQ(std::dynamic_pointer_cast<IHash>(At(*clone, 0))->Set("m", Int(2)), kOk);
  EXPECT_EQ(element->GetCount(), 1u);
  EXPECT_FALSE(*clone == *source);

  auto copied = MakeArray({Int(0)});
  *copied = *source;
  EXPECT_TRUE(At(*copied, 0) != element && *At(*copied, 0) == *element);
  auto shared = MakeArray();
  *shared = std::move(*source);
  EXPECT_EQ(At(*shared, 0), element);
  EXPECT_EQ(copied->Assign(nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(copied->Assign(MakeArray({Int(4), Int(5)})), kOk);
  EXPECT_EQ(Texts(*copied), (Strings{"4", "5"}));
}

TEST(Array, EqualityIsPositionByPositionAndIterationSeesTheStart) {
  EXPECT_TRUE(*MakeArray({Int(1), Text("a")}) == *MakeArray({Int(1), Text("a")}));
  EXPECT_FALSE(*MakeArray({Int(1), Text("a")}) == *MakeArray({Text("a"), Int(1)}));
  EXPECT_FALSE(*MakeArray({Int(1)}) == *MakeArray({Int(1), Int(1)}));
  EXPECT_FALSE(*MakeArray({Int(1), Int(1)}) == *MakeArray({Int(1)}));
  EXPECT_TRUE(*MakeArray() != *MakeHash() && *MakeArray() != *Int(1));

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

}  // namespace
}  // namespace QelSS
