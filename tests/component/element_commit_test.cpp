/// Every commit reaches the manager: the daemon makes exactly the requests that the change demands, in order, and the
/// manager ends up with the configuration.
#include <gmock/gmock.h>

#include <fstream>

#include "support/element/checks.h"
#include "support/element/expected_requests.h"
#include "support/element/random_commit.h"
#include "support/netconf_client.h"

namespace test {
namespace {

using testing::ElementsAreArray;

/// Reads the probe's log on from where it was left.
class RequestLog final {
 public:
  explicit RequestLog(const Element& element) : path_{element.File("requests")} {}
  std::vector<std::string> Next() {
    std::ifstream file{path_};
    file.seekg(static_cast<std::streamoff>(read_));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line); read_ += line.size() + 1) lines.push_back(line);
    return lines;
  }

 private:
  std::string path_;
  size_t read_ = 0;
};

class RandomCommits : public testing::TestWithParam<int> {};

TEST_P(RandomCommits, MakeTheRequestsOfTheirChangeInOrder) {
  constexpr int kCommits = 150;
  Element element;
  element.ProbeRequests(element.File("requests"));
  RequestLog requests{element};
  Random random{static_cast<unsigned>(GetParam())};
  Configuration configuration = RandomConfiguration(random, 6, 6);
  element.Start(Part::kCdbd);
  CommitInPlace(element, configuration);
  element.StartAll();
  // An empty configuration is there at once.
  ASSERT_TRUE(element.WaitForLog(Part::kDaemon, "All LoadConfDCfg executed successfully!"));
  ExpectManagerHolds(element, configuration);
  EXPECT_THAT(requests.Next(), ElementsAreArray(RequestsOfLoad(configuration)));
  NetconfClient client{element.NetconfSocket()};
  for (int round = 0; round < Rounds(kCommits) && !HasFailure(); ++round) {
    SCOPED_TRACE("commit " + std::to_string(round));
    const Configuration before = configuration;
    const std::string edit = RandomCommit(random, &configuration);
    // The answer comes when the daemon has handled the change, so its requests are all written down by then.
    EXPECT_TRUE(IsOk(client.EditConfig(edit))) << edit;
    EXPECT_THAT(requests.Next(), ElementsAreArray(RequestsOf(before, configuration))) << edit;
    if (round % 10 == 0) ExpectManagerHolds(element, configuration);
  }
  ExpectManagerHolds(element, configuration);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomCommits, testing::Range(100, 106));

}  // namespace
}  // namespace test
