// The agent's own record of a resource: its file, and when that is believed.

#include "fip/address_record.h"
#include "fip_fixture.h"

using RecordTest = FipTest;

// "0 ADDRESS DEVICE", or the errno of the reading.
std::string recorded(const std::string &rscname)
{
    fip_record record = {};
    const int ret = fip_record_read(rscname.c_str(), &record);
    return ret != 0 ? std::to_string(ret) : join(ret, record.address, record.device);
}

TEST_F(RecordTest, StaysInItsDirectory_AndIsBelievedOnlyWhenWholeAndSafe)
{
    vdevinfo target = {};
    copy_text(target.sipel.addr, "10.0.0.1");
    inet_pton(AF_INET, "255.255.254.0", &target.nipel.mask);
    const std::string long_name(32, 'x');
    write("run/fip/.new.99999999", ""); // of a run that was killed, and of one that is alive
    write("run/fip/.new.1", "");
    EXPECT_EQ(fip_record_up(long_name.c_str(), target, ""), EINVAL);
    EXPECT_EQ(fip_record_up("", target, ""), 0);
    for (const auto &row : table(R"(
RESOURCE | ITS FILE | WHAT IS DONE TO IT | THE ERRNO THAT COMES OF IT
fip-1_A | fip-1_A | chmod g+w $0 | 1
.. | %2E%2E | chown 1 $0 | 1
../%<ff> | %2E%2E%2F%25%FF | rm $0; mkfifo $0 | 1
<31> | <31> | mv $0 x; ln -s x $0 | 40
a | a | sed s=a=b= $0 >b; cat b >$0 | 22
b | b | truncate -s -1 $0 | 22
c | c | truncate -s +1 $0 | 22
d | d | printf %84s >x; dd if=x of=$0 bs=1 seek=40 conv=notrunc status=none | 22
)",
                                 {{"<ff>", "\xff"}, {"<31>", long_name.substr(1)}})) {
        EXPECT_EQ(fip_record_up(row[0].c_str(), target, "eth0:1"), 0);
        EXPECT_EQ(recorded(row[0]), "0 10.0.0.1/23 eth0:1") << row[0];
        const std::string in = "cd " + home.string() + "/run/fip && sh -c '[ $(stat -c %a $0) = 600 ] && ";
        EXPECT_EQ(std::system((in + row.at(2) + "' " + row[1]).c_str()), 0) << row[1]; // NOLINT
        EXPECT_EQ(recorded(row[0]), row.at(3)) << row[2];
    }
    EXPECT_FALSE(fs::exists(home / "run/fip/.new.99999999"));
    EXPECT_TRUE(fs::exists(home / "run/fip/.new.1"));
}
