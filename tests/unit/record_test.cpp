// The agent's own record of a resource: its file, and what becomes of it.

#include "fip/record.h"
#include "fip_fixture.h"

#include <csignal>
#include <sys/resource.h>

using RecordTest = FipTest;

int up(const std::string &rscname)
{
    vdevinfo target = {};
    copy_text(target.sipel.addr, "10.0.0.1");
    inet_pton(AF_INET, "255.255.254.0", &target.nipel.mask);
    return fip_record_up(rscname.c_str(), target, "eth0:1");
}

// "0 ADDRESS DEVICE", or the errno of the reading.
std::string recorded(const std::string &rscname)
{
    fip_record record = {};
    const int ret = fip_record_read(rscname.c_str(), &record);
    return ret != 0 ? std::to_string(ret) : join(ret, record.address, record.device);
}

TEST_F(RecordTest, StaysInItsDirectory_AndIsRefusedWhenNotSafe)
{
    const std::string too_long(32, 'x');
    EXPECT_EQ(join(up(too_long), up(""), recorded(too_long), recorded("")), "22 0 22 22");
    // RESOURCE | ITS FILE | WHAT IS DONE TO IT | THE ERRNO THAT COMES OF IT
    for (const auto &row : table(R"(
fip-1_A | fip-1_A | chmod g+w $0 | 1
.. | %2E%2E | chown 1 $0 | 1
../../%<ff> | %2E%2E%2F%2E%2E%2F%25%FF | rm $0; mkfifo $0 | 1
<31> | <31> | mv $0 x; ln -s x $0 | 40
a | a | rm x; sed s=a=b= $0 >x; cat x >$0 | 22
b | b | truncate -s -1 $0 | 22
c | c | truncate -s +1 $0 | 22
d | d | tr "\000" x <$0 >x; cat x >$0 | 22
e | e | rm $0 | 2
)",
                                 {{"<ff>", "\xff"}, {"<31>", std::string(31, 'x')}})) {
        EXPECT_EQ(up(row[0]), 0);
        EXPECT_EQ(recorded(row[0]), "0 10.0.0.1/23 eth0:1") << row[0];
        const std::string in =
            "umask 077; cd " + home.string() + "/run/fip && sh -c '[ $(stat -c %a $0) = 600 ] && ";
        EXPECT_EQ(std::system((in + row.at(2) + "' " + row[1]).c_str()), 0) << row[1]; // NOLINT
        EXPECT_EQ(recorded(row[0]), row.at(3)) << row[2];
    }
}

TEST_F(RecordTest, IsDropped_WhenItCannotBeReplaced)
{
    up("fip1");
    signal(SIGXFSZ, SIG_IGN);
    const rlimit none = {0, RLIM_INFINITY}, unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    const int ret = up("fip1");
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(join(ret, recorded("fip1"), fs::is_empty(home / "run/fip")), "27 2 1");
}
