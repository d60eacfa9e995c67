// varnel-identity: writes the identity block of a board. See docs/virtual-board.md.
#include <cstdio>
#include <exception>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace {

using namespace varnel::board;
using nlohmann::json;

constexpr const char* kUsage = R"(Usage:
  varnel-identity [--serial TEXT] [--product TEXT] [--private-key-file FILE] [--set NAME=JSON]...
                  [--key-file FILE] [--offset BYTES] FILE
Writes an identity block into FILE, in place. What is not given is not in the block.
  --private-key-file   holds the device's private key; - is standard input
  --key-file           encrypts the block with this key: 32 bytes or 64 hexadecimal digits
  --offset             of the block in FILE, 26624 unless given
)";

struct Order {
  json identity = json::object();
  std::string key_file;
  uint64_t offset = kIdentityOffset;
  std::string storage;
};

std::string PrivateKey(const std::string& file) {
  std::string key =
      file == "-" ? std::string(std::istreambuf_iterator<char>(std::cin), {}) : ReadFile(file);
  key.erase(key.find_last_not_of("\r\n") + 1);
  if (key.empty()) throw std::runtime_error("no private key in " + file);
  return key;
}

void SetMember(json& identity, const std::string& assignment) {
  const size_t sign = assignment.find('=');
  if (sign == assignment.npos) throw std::invalid_argument("NAME=JSON expected: " + assignment);
  identity[assignment.substr(0, sign)] = json::parse(assignment.substr(sign + 1));
}

void TakeOption(Order& order, const std::string& option, const std::string& value) {
  if (option == "--serial") {
    order.identity["SerialNumber"] = value;
  } else if (option == "--product") {
    order.identity["ProductCode"] = value;
  } else if (option == "--private-key-file") {
    order.identity["PrivateKey"] = PrivateKey(value);
  } else if (option == "--set") {
    SetMember(order.identity, value);
  } else if (option == "--key-file") {
    order.key_file = value;
  } else if (option == "--offset") {
    order.offset = std::stoull(value);
  } else {
    throw std::invalid_argument("unknown option " + option);
  }
}

Order ParseOrder(int argc, char** argv) {
  Order order;
  int i = 1;
  for (; i + 1 < argc; i += 2) TakeOption(order, argv[i], argv[i + 1]);
  if (i + 1 != argc || argv[i][0] == '-') throw std::invalid_argument("FILE missing");
  order.storage = argv[i];
  return order;
}

}  // namespace

int main(int argc, char** argv) try {
  const Order order = ParseOrder(argc, argv);
  const std::string payload = order.identity.dump();
  WriteIdentityBlock(order.storage, order.offset,
                     order.key_file.empty()
                         ? ClearIdentityBlock(payload)
                         : SealedIdentityBlock(payload, ReadKeyFile(order.key_file)));
  return 0;
} catch (const std::invalid_argument& error) {
  std::fprintf(stderr, "varnel-identity: %s\n%s", error.what(), kUsage);
  return 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "varnel-identity: %s\n", error.what());
  return 1;
}
