// Defines the rows of the table of module names.
#include "libtirn/init/module_names.h"

namespace tirn {
namespace {

constexpr ModuleNameRow kRows[] = {
    {1, "KERN"},         {6, "HAL"},         {7, "BSP"},         {8, "BOOT"},         {9, "INIT"},
    {10, "WDOG"},        {11, "RTC"},        {12, "GPIO"},       {13, "I2C"},         {14, "SPI"},
    {15, "SMBUS"},       {20, "PCIE"},       {21, "PCIEHP"},     {22, "SASLINK"},     {23, "SASTOPO"},
    {24, "SATALINK"},    {25, "NVMELINK"},   {26, "FCLINK"},     {27, "FCTOPO"},      {28, "ETHLINK"},
    {29, "ROCELINK"},    {34, "IBLINK"},     {35, "USB"},        {36, "UART"},        {37, "SENSOR"},
    {38, "FAN"},         {39, "POWER"},      {40, "BBU"},        {41, "TEMP"},        {42, "LED"},
    {43, "FRU"},         {48, "IPMI"},       {49, "BMC"},        {50, "FPGA"},        {51, "CPLD"},
    {52, "DISKMGR"},     {64, "DISKIO"},     {65, "DISKQOS"},    {66, "DISKSMART"},   {67, "DISKLOG"},
    {68, "DISKFW"},      {73, "DISKPOOL"},   {74, "DISKDOM"},    {75, "RAIDCORE"},    {76, "RAIDRECON"},
    {77, "RAIDSCRUB"},   {78, "RAIDMETA"},   {79, "PARITY"},     {80, "CHUNK"},       {81, "CHUNKGRP"},
    {82, "EXTENT"},      {87, "STRIPE"},     {88, "LUNMGR"},     {89, "LUNIO"},       {90, "LUNMAP"},
    {91, "LUNCOPY"},     {92, "LUNMIG"},     {93, "LUNQOS"},     {94, "SNAP"},        {95, "SNAPMETA"},
    {96, "SNAPROLL"},    {101, "CLONE"},     {102, "CLONESYNC"}, {103, "MIRROR"},     {104, "REPSYNC"},
    {105, "REPASYNC"},   {106, "REPLINK"},   {107, "CONSGRP"},   {108, "HYPERPAIR"},  {109, "QUORUM"},
    {110, "ARB"},        {115, "THINPOOL"},  {128, "THINMETA"},  {129, "THINALLOC"},  {130, "RECLAIM"},
    {131, "DEDUP"},      {132, "DEDUPFP"},   {133, "COMPRESS"},  {134, "COMPENG"},    {135, "TIER"},
    {136, "TIERSTAT"},   {141, "PREFETCH"},  {142, "CACHE"},     {143, "CACHEMETA"},  {144, "CACHEDIRTY"},
    {145, "CACHEFLUSH"}, {146, "CACHEMIRR"}, {147, "JOURNAL"},   {148, "JOURNALREP"}, {149, "WAL"},
    {150, "METASTORE"},  {155, "BTREE"},     {156, "LSMTREE"},   {157, "HASHDIR"},    {158, "INDEX"},
    {159, "SPACEMGR"},   {160, "GC"},        {161, "DEFRAG"},    {162, "ZERODET"},    {163, "CRCCHK"},
    {164, "DIFPI"},      {169, "DATACRC"},   {170, "ENCRYPT"},   {171, "KEYMGR"},     {172, "KEYCACHE"},
    {173, "SCSITGT"},    {174, "SCSIINI"},   {175, "SCSICMD"},   {192, "ISCSITGT"},   {193, "ISCSIINI"},
    {194, "FCTGT"},      {199, "FCINI"},     {200, "NVMETGT"},   {201, "NVMEINI"},    {202, "SRPTGT"},
    {203, "NASCORE"},    {204, "NFS"},       {205, "NFSLOCK"},   {206, "SMB"},        {207, "SMBAUTH"},
    {208, "FTP"},        {213, "HTTPGW"},    {214, "OBJGW"},     {215, "OBJMETA"},    {216, "FSCORE"},
    {217, "FSDIR"},      {218, "FSQUOTA"},   {219, "FSSNAP"},    {220, "FSREPL"},     {221, "NDMP"},
    {222, "VSCAN"},      {227, "AUDIT"},     {228, "WORM"},      {229, "MULTIPATH"},  {230, "ALUA"},
    {231, "HOSTMGR"},    {232, "HOSTGRP"},   {233, "PORTGRP"},   {234, "PORTMGR"},    {235, "MAPVIEW"},
    {236, "INITIATOR"},  {241, "CHAP"},      {242, "LDAP"},      {243, "KERB"},       {256, "DNSC"},
    {257, "NTPC"},       {258, "SNMP"},      {259, "SMTP"},      {260, "SYSLOGC"},    {261, "TRAP"},
    {262, "CLMGR"},      {267, "CLMEMB"},    {268, "CLVOTE"},    {269, "CLELECT"},    {270, "CLSYNC"},
    {271, "CLMSG"},      {272, "CLHB"},      {273, "CLLOCK"},    {274, "CLLEASE"},    {275, "CLVIEW"},
    {276, "NODEMGR"},    {281, "NODESTATE"}, {282, "FAILOVER"},  {283, "FAILBACK"},   {284, "TAKEOVER"},
    {285, "PAXOS"},      {286, "RAFTLOG"},   {287, "CFGDB"},     {288, "CFGSYNC"},    {289, "CFGCACHE"},
    {290, "DBPROXY"},    {295, "RPC"},       {296, "RPCSRV"},    {297, "RPCCLI"},     {298, "MSGQ"},
    {299, "MSGBUS"},     {300, "EVENT"},     {301, "ALARM"},     {302, "ALARMFWD"},   {303, "PERF"},
    {320, "PERFHIST"},   {325, "STATS"},     {326, "TRACE"},     {327, "TRACEDUMP"},  {328, "LOGMGR"},
    {329, "LOGROT"},     {330, "DUMP"},      {331, "COREDUMP"},  {332, "UPGRADE"},    {333, "UPGROLL"},
    {334, "PATCH"},      {339, "LICENSE"},   {340, "CLI"},       {341, "REST"},       {342, "GUI"},
    {343, "WEBAUTH"},    {344, "USERMGR"},   {345, "ROLE"},      {346, "SESSION"},    {347, "CERT"},
    {348, "TLS"},        {353, "JOBMGR"},    {354, "SCHED"},     {355, "WORKQ"},      {356, "TIMER"},
    {357, "LWP"},        {358, "THREAD"},    {359, "LOCKDEP"},   {360, "MEMPOOL"},    {361, "MEMHUGE"},
    {362, "BUFMGR"},     {367, "NUMA"},      {368, "CPUPART"},   {369, "QOS"},        {370, "FLOWCTL"},
    {371, "DIAG"},       {381, "TIRN"},      {384, "SELFTEST"},  {385, "INSPECT"},    {386, "HEALTH"},
};

}  // namespace

// Compiles only if the table has exactly kModuleNameRows rows.
constinit const ModuleNameRow (&ModuleNameRows)[kModuleNameRows] = kRows;

}  // namespace tirn
