#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qelss/platform/xpc.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "values/ByteFormCodec.h"
#include "values/ContainerTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;

std::vector<std::string> KeysOf(const IHash& hash) {
  std::vector<std::string> keys;
  EXPECT_EQ(hash.Iterate(
                [&](const auto& key, const auto&, bool&) { keys.emplace_back(key->GetCString()); }),
            kOk);
  return keys;
}

std::shared_ptr<IHash> HashAt(const IHash& hash, const char* key) {
  return std::dynamic_pointer_cast<IHash>(GetKey(hash, key));
}

TEST(Hash, KeysIterateInByteOrder) {
  auto hash = MakeHash({{"b", Int(1)}, {"a", Int(2)}, {"B", Int(3)}});
  EXPECT_EQ(KeysOf(*hash), (std::vector<std::string>{"B", "a", "b"}));
  EXPECT_EQ(hash->GetCount(), 3u);
}

TEST(Hash, SetReplacesAndGetSharesTheStoredValue) {
  auto hash = MakeHash({{"k", Int(1)}});
  auto two = Int(2);
  EXPECT_EQ(hash->Set(Key("k"), two), kOk);
  EXPECT_EQ(hash->GetCount(), 1u);
  EXPECT_EQ(GetKey(*hash, "k"), two);

  std::shared_ptr<IValue> out = two;
  EXPECT_EQ(hash->Get(Key("k"), out), kOk);
  EXPECT_EQ(out.get(), two.get());
}

TEST(Hash, AbsentKeysAndNullArguments) {
  auto hash = MakeHash({{"present", Int(1)}});
  auto kept = Int(7);
  std::shared_ptr<IValue> out = kept;
  EXPECT_EQ(hash->Get("absent", out), make_error_code(kNotFound));
  EXPECT_EQ(out, kept);
  EXPECT_EQ(hash->Contains("absent"), make_error_code(kNotFound));
  EXPECT_EQ(hash->Contains(Key("present")), kOk);
  EXPECT_EQ(hash->Delete("absent"), make_error_code(kNotFound));
  EXPECT_EQ(hash->Delete(Key("present")), kOk);
  EXPECT_EQ(hash->Contains("present"), make_error_code(kNotFound));

  const char* noText = nullptr;
  const std::shared_ptr<IString> noKey;
  EXPECT_EQ(hash->Set(noText, Int(1)), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->Set(noKey, Int(1)), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->Set("k", nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->Get(noKey, out), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->Contains(noText), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->Delete(noKey), make_error_code(kInvalidArgument));
  EXPECT_EQ(hash->GetCount(), 0u);
}

TEST(Hash, RefusesToHoldItselfAndDropsUnusableEntries) {
  auto hash = MakeHash();
  EXPECT_EQ(hash->Set("self", hash), make_error_code(kInvalidArgument));

  HashEntries entries;
  entries.emplace(Key("kept"), Int(1));
  entries.emplace(Key("null"), nullptr);
  entries.emplace(Key("self"), hash);
  hash->SetEntries(std::move(entries));
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ(KeysOf(*hash), std::vector<std::string>{"kept"});
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
  EXPECT_EQ(visited, 2);
  EXPECT_EQ(KeysOf(*hash), (std::vector<std::string>{"a", "a2", "b", "b2", "c"}));
  EXPECT_EQ(hash->Iterate(nullptr), make_error_code(kInvalidArgument));
}

TEST(Hash, CloneIsDeepAndIndependent) {
  auto inner = MakeHash({{"n", Int(1)}});
  auto hash = MakeHash({{"inner", inner}, {"s", Text("x")}});
  std::shared_ptr<IValue> value;
  ASSERT_EQ(hash->Clone(value), kOk);
  auto clone = std::dynamic_pointer_cast<IHash>(value);
  ASSERT_TRUE(clone);
  EXPECT_TRUE(*clone == *hash);
  EXPECT_NE(GetKey(*clone, "s"), GetKey(*hash, "s"));

  auto clonedInner = HashAt(*clone, "inner");
  ASSERT_NE(clonedInner, inner);
  EXPECT_EQ(clonedInner->Set("n", Int(2)), kOk);
  EXPECT_EQ(clone->Set("added", Int(3)), kOk);
  EXPECT_EQ(IntAt(*inner, "n"), 1);
  EXPECT_EQ(hash->Contains("added"), make_error_code(kNotFound));
  EXPECT_FALSE(*clone == *hash);
}

TEST(Hash, CopyAssignmentCopiesAndMoveAssignmentTakesOver) {
  auto source = MakeHash({{"a", MakeHash({{"n", Int(1)}})}});
  auto target = MakeHash({{"old", Int(0)}});
  *target = *source;
  EXPECT_EQ(KeysOf(*target), std::vector<std::string>{"a"});
  EXPECT_NE(GetKey(*target, "a"), GetKey(*source, "a"));
  EXPECT_TRUE(*target == *source);

  *target = *target;
  EXPECT_EQ(target->GetCount(), 1u);

  auto taken = GetKey(*source, "a");
  *target = std::move(*source);
  EXPECT_EQ(source->GetCount(), 0u);
  EXPECT_EQ(GetKey(*target, "a"), taken);

  EXPECT_EQ(target->Assign(nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(target->Assign(MakeHash({{"b", Int(2)}})), kOk);
  EXPECT_EQ(KeysOf(*target), std::vector<std::string>{"b"});
}

TEST(Hash, Equality) {
  auto a = MakeHash({{"x", Int(1)}, {"y", MakeHash({{"z", Text("t")}})}});
  auto b = MakeHash({{"y", MakeHash({{"z", Text("t")}})}, {"x", Int(1)}});
  EXPECT_TRUE(*a == *b);
  EXPECT_FALSE(*a != *b);

  EXPECT_EQ(HashAt(*b, "y")->Set("z", Text("u")), kOk);
  EXPECT_FALSE(*a == *b);
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}}) == *MakeHash({{"x", Int(1)}, {"w", Int(1)}}));
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}, {"w", Int(1)}}) == *MakeHash({{"x", Int(1)}}));
  EXPECT_FALSE(*MakeHash({{"x", Int(1)}}) == *MakeHash({{"y", Int(1)}}));
  EXPECT_FALSE(*MakeHash() == *MakeArray());
  EXPECT_FALSE(*MakeHash() == *Int(0));
  EXPECT_TRUE(*MakeHash() == *MakeHash());
}

TEST(Hash, MergeAddsWhatIsMissingAndKeepsWhatIsThere) {
  auto target = MakeHash({{"x", Int(2)}});
  EXPECT_EQ(target->Merge(MakeHash({{"x", Int(1)}})), kOk);
  EXPECT_EQ(IntAt(*target, "x"), 2);

  auto shared = Int(1);
  auto empty = MakeHash();
  EXPECT_EQ(empty->Merge(MakeHash({{"y", shared}})), kOk);
  EXPECT_EQ(GetKey(*empty, "y"), shared);

  EXPECT_EQ(target->Merge(nullptr), make_error_code(kInvalidArgument));
}

TEST(Hash, MergeReachesEveryDepth) {
  auto target = MakeHash({{"a", MakeHash({{"b", MakeHash({{"kept", Int(1)}})}})}});
  auto source = MakeHash(
      {{"a", MakeHash({{"b", MakeHash({{"kept", Int(9)}, {"deep", Int(3)}})}, {"mid", Int(2)}})},
       {"top", Int(1)}});
  EXPECT_EQ(target->Merge(source), kOk);
  auto a = HashAt(*target, "a");
  auto b = HashAt(*a, "b");
  EXPECT_EQ(IntAt(*target, "top"), 1);
  EXPECT_EQ(IntAt(*a, "mid"), 2);
  EXPECT_EQ(IntAt(*b, "deep"), 3);
  EXPECT_EQ(IntAt(*b, "kept"), 1);
}

TEST(Hash, MergeOfMismatchedNestedKindsFails) {
  auto target = MakeHash({{"a", Int(1)}});
  EXPECT_EQ(target->Merge(MakeHash({{"a", MakeHash({{"b", Int(1)}})}})),
            make_error_code(kInvalidData));
  EXPECT_EQ(target->Merge(MakeHash({{"a", MakeArray()}})), make_error_code(kInvalidData));
}

TEST(Hash, MergeOfArraysMergesHashElementsByPosition) {
  auto target = MakeHash({{"list", MakeArray({MakeHash({{"a", Int(1)}}), Int(5)})}});
  auto source = MakeHash({{"list", MakeArray({MakeHash({{"a", Int(9)}, {"b", Int(2)}}), Int(6)})}});
  EXPECT_EQ(target->Merge(source), kOk);
  auto list = std::dynamic_pointer_cast<IArray>(GetKey(*target, "list"));
  ASSERT_EQ(list->GetCount(), 2u);
  std::shared_ptr<IValue> first;
  ASSERT_EQ(list->Get(0, first), kOk);
  EXPECT_TRUE(*first == *MakeHash({{"a", Int(1)}, {"b", Int(2)}}));

  // A hash element facing a scalar, or beyond the end of a non-empty array,
  // has nothing to merge into.
  auto facingScalar = MakeHash({{"list", MakeArray({Int(0), MakeHash()})}});
  EXPECT_EQ(target->Merge(facingScalar), make_error_code(kInvalidData));
  auto longer = MakeHash({{"list", MakeArray({MakeHash(), Int(7), Int(8), MakeHash()})}});
  EXPECT_EQ(target->Merge(longer), make_error_code(kIndexOutOfRange));
}

TEST(Hash, MergeOfTwoHashElementsIntoAnEmptyArrayInsertsOneThenFails) {
  auto first = MakeHash({{"a", Int(1)}});
  auto target = MakeHash({{"list", MakeArray()}});
  auto source = MakeHash({{"list", MakeArray({first, MakeHash({{"b", Int(2)}})})}});
  EXPECT_EQ(target->Merge(source), make_error_code(kIndexOutOfRange));
  auto list = std::dynamic_pointer_cast<IArray>(GetKey(*target, "list"));
  ASSERT_EQ(list->GetCount(), 1u);
  std::shared_ptr<IValue> inserted;
  ASSERT_EQ(list->Get(0, inserted), kOk);
  EXPECT_EQ(inserted, first);
}

TEST(Hash, DescriptionOfEmptyAndFlatHashes) {
  EXPECT_EQ(Describe(*MakeHash()), "{\n\n}");
  EXPECT_EQ(Describe(*MakeHash(), 3), "\n  {\n\n  }");
  EXPECT_EQ(Describe(*MakeHash({{"a", Int(1)}, {"a-key-longer-than-15", Text("v")}})),
            "{\n"
            "              a : 1,\n"
            "a-key-longer-than-15 : v\n"
            "}");
}

TEST(Hash, DescriptionIndentsNestedContainers) {
  auto hash = MakeHash({{"a", Int(1)},
                        {"b", MakeHash({{"c", Text("x")}})},
                        {"list", MakeArray({Int(1), MakeHash({{"d", Int(2)}})})}});
  EXPECT_EQ(Describe(*hash),
            "{\n"
            "              a : 1,\n"
            "              b : \n"
            "              {\n"
            "                             c : x\n"
            "              },\n"
            "           list : \n"
            "              {\n"
            "                      1,\n"
            "\n"
            "                     {\n"
            "                                    d : 2\n"
            "                     }\n"
            "              }\n"
            "}");
}

TEST(Hash, PlatformDictionaryRoundTrip) {
  auto hash = MakeHash({{"n", Int(-4)},
                        {"s", Text("text")},
                        {"inner", MakeHash({{"deep", Int(1)}})},
                        {"list", MakeArray({Text("e"), MakeHash()})}});
  xpc_object_t dictionary = nullptr;
  ASSERT_EQ(hash->CopyXPCObject(&dictionary), kOk);
  ASSERT_EQ(xpc_get_type(dictionary), XPC_TYPE_DICTIONARY);
  EXPECT_EQ(xpc_dictionary_get_count(dictionary), 4u);
  EXPECT_EQ(xpc_dictionary_get_int64(dictionary, "n"), -4);
  xpc_object_t inner = xpc_dictionary_get_value(dictionary, "inner");
  EXPECT_EQ(xpc_dictionary_get_int64(inner, "deep"), 1);
  EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary, "list")), XPC_TYPE_ARRAY);

  std::shared_ptr<IHash> rebuilt;
  void* object = dictionary;
  ASSERT_EQ(HashFactory::Create(rebuilt, object), kOk);
  EXPECT_TRUE(*rebuilt == *hash);
  EXPECT_TRUE(std::dynamic_pointer_cast<IArray>(GetKey(*rebuilt, "list")));
  xpc_release(dictionary);
  EXPECT_EQ(hash->CopyXPCObject(nullptr), make_error_code(kInvalidArgument));
}

TEST(Hash, FactoryRefusesWhatIsNotAUsableDictionary) {
  auto kept = MakeHash();
  std::shared_ptr<IHash> out = kept;
  void* none = nullptr;
  EXPECT_EQ(HashFactory::Create(out, none), make_error_code(kInvalidType));
  xpc_object_t number = xpc_int64_create(1);
  void* notDictionary = number;
  EXPECT_EQ(HashFactory::Create(out, notDictionary), make_error_code(kInvalidType));
  xpc_release(number);

  xpc_object_t dictionary = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_dictionary_set_value(dictionary, "error", XPC_ERROR_CONNECTION_INVALID);
  void* holdsError = dictionary;
  EXPECT_EQ(HashFactory::Create(out, holdsError), make_error_code(kInvalidType));
  xpc_release(dictionary);
  EXPECT_EQ(out, kept);
}

// A codec standing in for the persistence layer's: a hash is written as "H"
// and its entry count, "H" reads as an empty hash and "N" as a number.
const IValue* gWritten = nullptr;

std::error_code WriteCount(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& bytes) {
  auto hash = std::dynamic_pointer_cast<IHash>(value);
  if (!hash) return kInvalidType;
  gWritten = value.get();
  const std::string text = "H" + std::to_string(hash->GetCount());
  bytes.assign(text.begin(), text.end());
  return kSuccess;
}

std::error_code ReadKind(const std::vector<uint8_t>& bytes, std::shared_ptr<IValue>& value) {
  if (bytes == std::vector<uint8_t>{'H'}) {
    value = MakeHash();
    return kSuccess;
  }
  if (bytes == std::vector<uint8_t>{'N'}) {
    value = Int(1);
    return kSuccess;
  }
  return kSerializationError;
}

TEST(Hash, BytesGoThroughTheInstalledCodec) {
  static const ByteFormCodec codec{WriteCount, ReadKind};
  InstallByteFormCodec(&codec);
  auto hash = MakeHash({{"a", Int(1)}, {"b", Int(2)}});
  std::vector<uint8_t> bytes;
  EXPECT_EQ(hash->Serialize(bytes), kOk);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "H2");
  EXPECT_NE(gWritten, hash.get());  // the writer gets a clone

  std::shared_ptr<IHash> read = hash;
  EXPECT_EQ(HashFactory::CreateFromBytes(read, {'x'}), make_error_code(kSerializationError));
  EXPECT_EQ(read, hash);
  EXPECT_EQ(HashFactory::CreateFromBytes(read, {'H'}), kOk);
  EXPECT_TRUE(read && read != hash);
  EXPECT_EQ(HashFactory::CreateFromBytes(read, {'N'}), make_error_code(kInvalidData));
  EXPECT_FALSE(read);
  InstallByteFormCodec(nullptr);
  EXPECT_EQ(hash->Serialize(bytes), make_error_code(kNotImplemented));
}

// A hash reached again through another container cannot be refused when it
// is set; walks of it stop at the nesting limit instead of overflowing.
TEST(Hash, CycleThroughAnotherContainerEndsInRefusal) {
  auto outer = MakeHash();
  auto inner = MakeHash();
  ASSERT_EQ(outer->Set("inner", inner), kOk);
  ASSERT_EQ(inner->Set("outer", outer), kOk);

  std::shared_ptr<IValue> clone;
  std::string text;
  EXPECT_EQ(outer->Clone(clone), make_error_code(kOperationRefused));
  EXPECT_EQ(outer->Description(text), make_error_code(kOperationRefused));
  EXPECT_FALSE(*outer == *outer);
  EXPECT_EQ(outer->Merge(outer), make_error_code(kOperationRefused));
  inner->RemoveAll();  // breaks the cycle so that both are freed

  // Ordinary depths are walked in full.
  auto deep = MakeHash({{"leaf", Int(1)}});
  for (int level = 0; level < 100; ++level) deep = MakeHash({{"next", deep}});
  EXPECT_EQ(deep->Clone(clone), kOk);
  EXPECT_TRUE(*clone == *deep);
}

}  // namespace
}  // namespace QelSS
