// What the registers of configuration space are called, and what their fields mean.
#include "tools/pci/registers.h"

#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

// Fields are called what lspci calls them, and registers what <linux/pci_regs.h> does; those of the
// header, what setpci does.
using fields = const pci_field[];
using enum field_reading;
using enum pci_presence;

constexpr char speeds[] = "unknown|2.5GT/s|5GT/s|8GT/s|16GT/s|32GT/s|64GT/s";
constexpr char sizes[] = "128 bytes|256 bytes|512 bytes|1024 bytes|2048 bytes|4096 bytes|"
                         "8192 bytes|16384 bytes";
constexpr char counts[] = "1|2|4|8|16|32|64|128";
constexpr char l0s_times[] = "<64ns|<128ns|<256ns|<512ns|<1us|<2us|<4us|unlimited";
constexpr char l1_times[] = "<1us|<2us|<4us|<8us|<16us|<32us|<64us|unlimited";
constexpr char indicator[] = "Unknown|On|Blink|Off";

//--- header ---------------------------------------------------------------------------------------

constexpr fields header_command = {
    {"I/O", PCI_COMMAND_IO},
    {"Mem", PCI_COMMAND_MEMORY},
    {"BusMaster", PCI_COMMAND_MASTER},
    {"SpecCycle", PCI_COMMAND_SPECIAL},
    {"MemWINV", PCI_COMMAND_INVALIDATE},
    {"VGASnoop", PCI_COMMAND_VGA_PALETTE},
    {"ParErr", PCI_COMMAND_PARITY},
    {"Stepping", PCI_COMMAND_WAIT},
    {"SERR", PCI_COMMAND_SERR},
    {"FastB2B", PCI_COMMAND_FAST_BACK},
    {"DisINTx", PCI_COMMAND_INTX_DISABLE},
};
constexpr fields header_status = {
    {"Cap", PCI_STATUS_CAP_LIST},
    {"66MHz", PCI_STATUS_66MHZ},
    {"UDF", PCI_STATUS_UDF},
    {"FastB2B", PCI_STATUS_FAST_BACK},
    {"ParErr", PCI_STATUS_PARITY},
    {"DEVSEL", PCI_STATUS_DEVSEL_MASK, "fast|medium|slow|??"},
    {">TAbort", PCI_STATUS_SIG_TARGET_ABORT},
    {"<TAbort", PCI_STATUS_REC_TARGET_ABORT},
    {"<MAbort", PCI_STATUS_REC_MASTER_ABORT},
    {">SERR", PCI_STATUS_SIG_SYSTEM_ERROR},
    {"<PERR", PCI_STATUS_DETECTED_PARITY},
    {"INTx", PCI_STATUS_INTERRUPT},
};
constexpr fields secondary_status = {
    {"66MHz", PCI_STATUS_66MHZ},
    {"FastB2B", PCI_STATUS_FAST_BACK},
    {"ParErr", PCI_STATUS_PARITY},
    {"DEVSEL", PCI_STATUS_DEVSEL_MASK, "fast|medium|slow|??"},
    {">TAbort", PCI_STATUS_SIG_TARGET_ABORT},
    {"<TAbort", PCI_STATUS_REC_TARGET_ABORT},
    {"<MAbort", PCI_STATUS_REC_MASTER_ABORT},
    {"<SERR", PCI_STATUS_SIG_SYSTEM_ERROR},
    {"<PERR", PCI_STATUS_DETECTED_PARITY},
};
constexpr fields bridge_control = {
    {"Parity", PCI_BRIDGE_CTL_PARITY},
    {"SERR", PCI_BRIDGE_CTL_SERR},
    {"NoISA", PCI_BRIDGE_CTL_ISA},
    {"VGA", PCI_BRIDGE_CTL_VGA},
    {"VGA16", 0x10},
    {"MAbort", PCI_BRIDGE_CTL_MASTER_ABORT},
    {">Reset", PCI_BRIDGE_CTL_BUS_RESET},
    {"FastB2B", PCI_BRIDGE_CTL_FAST_BACK},
    {"PriDiscTmr", 0x100},
    {"SecDiscTmr", 0x200},
    {"DiscTmrStat", 0x400},
    {"DiscTmrSERREn", 0x800},
};

constexpr pci_register header[] = {
    {"VENDOR_ID", PCI_VENDOR_ID, 16},
    {"DEVICE_ID", PCI_DEVICE_ID, 16},
    {"COMMAND", PCI_COMMAND, 16, header_command},
    {"STATUS", PCI_STATUS, 16, header_status},
    {"REVISION", PCI_REVISION_ID, 8},
    {"CLASS_PROG", PCI_CLASS_PROG, 8},
    {"CLASS_DEVICE", PCI_CLASS_DEVICE, 16},
    {"CACHE_LINE_SIZE", PCI_CACHE_LINE_SIZE, 8},
    {"LATENCY_TIMER", PCI_LATENCY_TIMER, 8},
    {"HEADER_TYPE", PCI_HEADER_TYPE, 8},
    {"BIST", PCI_BIST, 8},
    {"CAPABILITIES", PCI_CAPABILITY_LIST, 8},
    {"INTERRUPT_LINE", PCI_INTERRUPT_LINE, 8},
    {"INTERRUPT_PIN", PCI_INTERRUPT_PIN, 8},
};
constexpr pci_register header_device[] = {
    {"BASE_ADDRESS_0", PCI_BASE_ADDRESS_0, 32},
    {"BASE_ADDRESS_1", PCI_BASE_ADDRESS_1, 32},
    {"BASE_ADDRESS_2", PCI_BASE_ADDRESS_2, 32},
    {"BASE_ADDRESS_3", PCI_BASE_ADDRESS_3, 32},
    {"BASE_ADDRESS_4", PCI_BASE_ADDRESS_4, 32},
    {"BASE_ADDRESS_5", PCI_BASE_ADDRESS_5, 32},
    {"CARDBUS_CIS", PCI_CARDBUS_CIS, 32},
    {"SUBSYSTEM_VENDOR_ID", PCI_SUBSYSTEM_VENDOR_ID, 16},
    {"SUBSYSTEM_ID", PCI_SUBSYSTEM_ID, 16},
    {"ROM_ADDRESS", PCI_ROM_ADDRESS, 32},
    {"MIN_GNT", PCI_MIN_GNT, 8},
    {"MAX_LAT", PCI_MAX_LAT, 8},
};
constexpr pci_register bridge[] = {
    {"BASE_ADDRESS_0", PCI_BASE_ADDRESS_0, 32},
    {"BASE_ADDRESS_1", PCI_BASE_ADDRESS_1, 32},
    {"PRIMARY_BUS", PCI_PRIMARY_BUS, 8},
    {"SECONDARY_BUS", PCI_SECONDARY_BUS, 8},
    {"SUBORDINATE_BUS", PCI_SUBORDINATE_BUS, 8},
    {"SEC_LATENCY_TIMER", PCI_SEC_LATENCY_TIMER, 8},
    {"IO_BASE", PCI_IO_BASE, 8},
    {"IO_LIMIT", PCI_IO_LIMIT, 8},
    {"SEC_STATUS", PCI_SEC_STATUS, 16, secondary_status},
    {"MEMORY_BASE", PCI_MEMORY_BASE, 16},
    {"MEMORY_LIMIT", PCI_MEMORY_LIMIT, 16},
    {"PREF_MEMORY_BASE", PCI_PREF_MEMORY_BASE, 16},
    {"PREF_MEMORY_LIMIT", PCI_PREF_MEMORY_LIMIT, 16},
    {"PREF_BASE_UPPER32", PCI_PREF_BASE_UPPER32, 32},
    {"PREF_LIMIT_UPPER32", PCI_PREF_LIMIT_UPPER32, 32},
    {"IO_BASE_UPPER16", PCI_IO_BASE_UPPER16, 16},
    {"IO_LIMIT_UPPER16", PCI_IO_LIMIT_UPPER16, 16},
    {"BRIDGE_ROM_ADDRESS", PCI_ROM_ADDRESS1, 32},
    {"BRIDGE_CONTROL", PCI_BRIDGE_CONTROL, 16, bridge_control},
};

//--- capabilities ---------------------------------------------------------------------------------

constexpr fields pm_pmc = {
    {"Version", PCI_PM_CAP_VER_MASK, number},
    {"PMEClk", PCI_PM_CAP_PME_CLOCK},
    {"DSI", PCI_PM_CAP_DSI},
    {"D1", PCI_PM_CAP_D1},
    {"D2", PCI_PM_CAP_D2},
    {"AuxCurrent", PCI_PM_CAP_AUX_POWER, "0mA|55mA|100mA|160mA|220mA|270mA|320mA|375mA"},
    {"PME-D0", PCI_PM_CAP_PME_D0},
    {"PME-D1", PCI_PM_CAP_PME_D1},
    {"PME-D2", PCI_PM_CAP_PME_D2},
    {"PME-D3hot", PCI_PM_CAP_PME_D3hot},
    {"PME-D3cold", PCI_PM_CAP_PME_D3cold},
};
constexpr fields pm_ctrl = {
    {"State", PCI_PM_CTRL_STATE_MASK, {number, "D"}}, {"NoSoftRst", PCI_PM_CTRL_NO_SOFT_RESET},
    {"PME-Enable", PCI_PM_CTRL_PME_ENABLE},           {"DSel", PCI_PM_CTRL_DATA_SEL_MASK, number},
    {"DScale", PCI_PM_CTRL_DATA_SCALE_MASK, number},  {"PME", PCI_PM_CTRL_PME_STATUS},
};
constexpr pci_register pm[] = {
    {"PM_PMC", PCI_PM_PMC, 16, pm_pmc},
    {"PM_CTRL", PCI_PM_CTRL, 16, pm_ctrl},
};

constexpr fields msi_flags = {
    {"Enable", PCI_MSI_FLAGS_ENABLE},
    {"Count", PCI_MSI_FLAGS_QSIZE, counts},
    {"MaxCount", PCI_MSI_FLAGS_QMASK, counts},
    {"Maskable", PCI_MSI_FLAGS_MASKBIT},
    {"64bit", PCI_MSI_FLAGS_64BIT},
};
constexpr pci_register msi[] = {
    {"MSI_FLAGS", PCI_MSI_FLAGS, 16, msi_flags},
    {"MSI_ADDRESS_LO", PCI_MSI_ADDRESS_LO, 32},
    {"MSI_ADDRESS_HI", PCI_MSI_ADDRESS_HI, 32, {}, msi_64},
    {"MSI_DATA_32", PCI_MSI_DATA_32, 16, {}, msi_32},
    {"MSI_DATA_64", PCI_MSI_DATA_64, 16, {}, msi_64},
    {"MSI_MASK_32", PCI_MSI_MASK_32, 32, {}, msi_mask_32},
    {"MSI_PENDING_32", PCI_MSI_PENDING_32, 32, {}, msi_mask_32},
    {"MSI_MASK_64", PCI_MSI_MASK_64, 32, {}, msi_mask_64},
    {"MSI_PENDING_64", PCI_MSI_PENDING_64, 32, {}, msi_mask_64},
};

constexpr fields msix_flags = {
    {"Enable", PCI_MSIX_FLAGS_ENABLE},
    {"Count", PCI_MSIX_FLAGS_QSIZE, plus_one},
    {"Masked", PCI_MSIX_FLAGS_MASKALL},
};
constexpr fields msix_table = {
    {"BAR", PCI_MSIX_TABLE_BIR, number},
    {"offset", PCI_MSIX_TABLE_OFFSET, in_place},
};
constexpr pci_register msix[] = {
    {"MSIX_FLAGS", PCI_MSIX_FLAGS, 16, msix_flags},
    {"MSIX_TABLE", PCI_MSIX_TABLE, 32, msix_table},
    {"MSIX_PBA", PCI_MSIX_PBA, 32, msix_table},
};

constexpr fields exp_flags = {
    {"Version", PCI_EXP_FLAGS_VERS, number},
    {"Type", PCI_EXP_FLAGS_TYPE,
     "Endpoint|Legacy Endpoint|||Root Port|Upstream Port|Downstream Port|"
     "PCI-Express to PCI/PCI-X Bridge|PCI/PCI-X to PCI-Express Bridge|"
     "Root Complex Integrated Endpoint|Root Complex Event Collector"},
    {"Slot", PCI_EXP_FLAGS_SLOT},
    {"MSI", PCI_EXP_FLAGS_IRQ, number},
};
constexpr fields exp_devcap = {
    {"MaxPayload", PCI_EXP_DEVCAP_PAYLOAD, sizes},
    {"PhantFunc", PCI_EXP_DEVCAP_PHANTOM, "0|1|3|7"},
    {"L0s", PCI_EXP_DEVCAP_L0S, l0s_times},
    {"L1", PCI_EXP_DEVCAP_L1, l1_times},
    {"ExtTag", PCI_EXP_DEVCAP_EXT_TAG},
    {"AttnBtn", PCI_EXP_DEVCAP_ATN_BUT},
    {"AttnInd", PCI_EXP_DEVCAP_ATN_IND},
    {"PwrInd", PCI_EXP_DEVCAP_PWR_IND},
    {"RBE", PCI_EXP_DEVCAP_RBER},
    {"FLReset", PCI_EXP_DEVCAP_FLR},
    {"SlotPowerLimit", PCI_EXP_DEVCAP_PWR_VAL | PCI_EXP_DEVCAP_PWR_SCL, watts},
};
constexpr fields exp_devctl = {
    {"CorrErr", PCI_EXP_DEVCTL_CERE},
    {"NonFatalErr", PCI_EXP_DEVCTL_NFERE},
    {"FatalErr", PCI_EXP_DEVCTL_FERE},
    {"UnsupReq", PCI_EXP_DEVCTL_URRE},
    {"RlxdOrd", PCI_EXP_DEVCTL_RELAX_EN},
    {"ExtTag", PCI_EXP_DEVCTL_EXT_TAG},
    {"PhantFunc", PCI_EXP_DEVCTL_PHANTOM},
    {"AuxPwr", PCI_EXP_DEVCTL_AUX_PME},
    {"NoSnoop", PCI_EXP_DEVCTL_NOSNOOP_EN},
    {"FLReset", PCI_EXP_DEVCTL_BCR_FLR},
    {"MaxPayload", PCI_EXP_DEVCTL_PAYLOAD, sizes},
    {"MaxReadReq", PCI_EXP_DEVCTL_READRQ, sizes},
};
constexpr fields exp_devsta = {
    {"CorrErr", PCI_EXP_DEVSTA_CED},  {"NonFatalErr", PCI_EXP_DEVSTA_NFED},
    {"FatalErr", PCI_EXP_DEVSTA_FED}, {"UnsupReq", PCI_EXP_DEVSTA_URD},
    {"AuxPwr", PCI_EXP_DEVSTA_AUXPD}, {"TransPend", PCI_EXP_DEVSTA_TRPND},
};
constexpr fields exp_lnkcap = {
    {"Port", PCI_EXP_LNKCAP_PN, {number, "#"}},
    {"Speed", PCI_EXP_LNKCAP_SLS, speeds},
    {"Width", PCI_EXP_LNKCAP_MLW, {number, "x"}},
    {"ASPM", PCI_EXP_LNKCAP_ASPMS, "not supported|L0s|L1|L0s L1"},
    {"L0s", PCI_EXP_LNKCAP_L0SEL, l0s_times},
    {"L1", PCI_EXP_LNKCAP_L1EL, l1_times},
    {"ClockPM", PCI_EXP_LNKCAP_CLKPM},
    {"Surprise", PCI_EXP_LNKCAP_SDERC},
    {"LLActRep", PCI_EXP_LNKCAP_DLLLARC},
    {"BwNot", PCI_EXP_LNKCAP_LBNC},
    {"ASPMOptComp", 0x400000},
};
constexpr fields exp_lnkctl = {
    {"ASPM", PCI_EXP_LNKCTL_ASPMC, "Disabled|L0s Enabled|L1 Enabled|L0s L1 Enabled"},
    {"RCB", PCI_EXP_LNKCTL_RCB, "64 bytes|128 bytes"},
    {"Disabled", PCI_EXP_LNKCTL_LD},
    {"CommClk", PCI_EXP_LNKCTL_CCC},
    {"ExtSynch", PCI_EXP_LNKCTL_ES},
    {"ClockPM", PCI_EXP_LNKCTL_CLKREQ_EN},
    {"AutWidDis", PCI_EXP_LNKCTL_HAWD},
    {"BWInt", PCI_EXP_LNKCTL_LBMIE},
    {"AutBWInt", PCI_EXP_LNKCTL_LABIE},
};
constexpr fields exp_lnksta = {
    {"Speed", PCI_EXP_LNKSTA_CLS, speeds},
    {"Width", PCI_EXP_LNKSTA_NLW, {number, "x"}},
    {"TrErr", 0x0400},
    {"Train", PCI_EXP_LNKSTA_LT},
    {"SlotClk", PCI_EXP_LNKSTA_SLC},
    {"DLActive", PCI_EXP_LNKSTA_DLLLA},
    {"BWMgmt", PCI_EXP_LNKSTA_LBMS},
    {"ABWMgmt", PCI_EXP_LNKSTA_LABS},
};
constexpr fields exp_sltcap = {
    {"AttnBtn", PCI_EXP_SLTCAP_ABP},
    {"PwrCtrl", PCI_EXP_SLTCAP_PCP},
    {"MRL", PCI_EXP_SLTCAP_MRLSP},
    {"AttnInd", PCI_EXP_SLTCAP_AIP},
    {"PwrInd", PCI_EXP_SLTCAP_PIP},
    {"HotPlug", PCI_EXP_SLTCAP_HPC},
    {"Surprise", PCI_EXP_SLTCAP_HPS},
    {"Slot", PCI_EXP_SLTCAP_PSN, {number, "#"}},
    {"PowerLimit", PCI_EXP_SLTCAP_SPLV | PCI_EXP_SLTCAP_SPLS, watts},
    {"Interlock", PCI_EXP_SLTCAP_EIP},
    {"NoCompl", PCI_EXP_SLTCAP_NCCS},
};
constexpr fields exp_sltctl = {
    {"AttnBtn", PCI_EXP_SLTCTL_ABPE},
    {"PwrFlt", PCI_EXP_SLTCTL_PFDE},
    {"MRL", PCI_EXP_SLTCTL_MRLSCE},
    {"PresDet", PCI_EXP_SLTCTL_PDCE},
    {"CmdCplt", PCI_EXP_SLTCTL_CCIE},
    {"HPIrq", PCI_EXP_SLTCTL_HPIE},
    {"LinkChg", PCI_EXP_SLTCTL_DLLSCE},
    {"AttnInd", PCI_EXP_SLTCTL_AIC, indicator},
    {"PwrInd", PCI_EXP_SLTCTL_PIC, indicator},
    {"Power", PCI_EXP_SLTCTL_PCC},
    {"Interlock", PCI_EXP_SLTCTL_EIC},
};
constexpr fields exp_sltsta = {
    {"AttnBtn", PCI_EXP_SLTSTA_ABP},
    {"PowerFlt", PCI_EXP_SLTSTA_PFD},
    {"MRL", PCI_EXP_SLTSTA_MRLSS},
    {"CmdCplt", PCI_EXP_SLTSTA_CC},
    {"PresDet", PCI_EXP_SLTSTA_PDS},
    {"Interlock", PCI_EXP_SLTSTA_EIS},
    {"MRLChanged", PCI_EXP_SLTSTA_MRLSC},
    {"PresDetChanged", PCI_EXP_SLTSTA_PDC},
    {"LinkStateChanged", PCI_EXP_SLTSTA_DLLSC},
};
constexpr fields exp_rtctl = {
    {"ErrCorrectable", PCI_EXP_RTCTL_SECEE}, {"ErrNon-Fatal", PCI_EXP_RTCTL_SENFEE},
    {"ErrFatal", PCI_EXP_RTCTL_SEFEE},       {"PMEIntEna", PCI_EXP_RTCTL_PMEIE},
    {"CRSVisible", PCI_EXP_RTCTL_CRSSVE},
};
constexpr fields exp_rtcap = {{"CRSVisible", PCI_EXP_RTCAP_CRSVIS}};
constexpr fields exp_rtsta = {
    {"ReqID", 0xffff, in_place},
    {"PMEStatus", PCI_EXP_RTSTA_PME},
    {"PMEPending", PCI_EXP_RTSTA_PENDING},
};
// Bits without a name here have none in the kernel's header.
constexpr fields exp_devcap2 = {
    {"Completion Timeout", 0xf,
     "Not Supported|Range A|Range B|Range AB|Unknown|Unknown|Range BC|Range ABC|Unknown|Unknown|"
     "Unknown|Unknown|Unknown|Unknown|Range BCD|Range ABCD"},
    {"TimeoutDis", PCI_EXP_DEVCAP2_COMP_TMOUT_DIS},
    {"NROPrPrP", 0x400},
    {"LTR", PCI_EXP_DEVCAP2_LTR},
    {"10BitTagComp", 0x10000},
    {"10BitTagReq", 0x20000},
    {"OBFF", PCI_EXP_DEVCAP2_OBFF_MASK, "Not Supported|Via message|Via WAKE#|Via message/WAKE#"},
    {"ExtFmt", 0x100000},
    {"EETLPPrefix", PCI_EXP_DEVCAP2_EE_PREFIX},
    {"MaxEETLPPrefixes", 0xc00000, "4|1|2|3"},
    {"EmergencyPowerReduction", 0x3000000,
     "Not Supported|Dev Specific|Form Factor Dev Specific|Reserved"},
    {"EmergencyPowerReductionInit", 0x4000000},
    {"FRS", 0x80000000},
    {"LN System CLS", 0xc000, "Not Supported|64byte cachelines|128byte cachelines|Reserved"},
    {"TPHComp", 0x1000},
    {"ExtTPHComp", 0x2000},
    {"ARIFwd", PCI_EXP_DEVCAP2_ARI},
    {"AtomicOpsRouting", PCI_EXP_DEVCAP2_ATOMIC_ROUTE},
    {"AtomicOps32bit", PCI_EXP_DEVCAP2_ATOMIC_COMP32},
    {"AtomicOps64bit", PCI_EXP_DEVCAP2_ATOMIC_COMP64},
    {"AtomicOps128bitCAS", PCI_EXP_DEVCAP2_ATOMIC_COMP128},
};
constexpr fields exp_devctl2 = {
    {"Completion Timeout", PCI_EXP_DEVCTL2_COMP_TIMEOUT,
     "50us to 50ms|50us to 100us|1ms to 10ms|Unknown|Unknown|16ms to 55ms|65ms to 210ms|Unknown|"
     "Unknown|260ms to 900ms|1s to 3.5s|Unknown|Unknown|4s to 13s|17s to 64s|Unknown"},
    {"TimeoutDis", PCI_EXP_DEVCTL2_COMP_TMOUT_DIS},
    {"LTR", PCI_EXP_DEVCTL2_LTR_EN},
    {"10BitTagReq", 0x1000},
    {"OBFF", PCI_EXP_DEVCTL2_OBFF_WAKE_EN, "Disabled|Via message A|Via message B|Via WAKE#"},
    {"ARIFwd", PCI_EXP_DEVCTL2_ARI},
    {"AtomicOpsReqEn", PCI_EXP_DEVCTL2_ATOMIC_REQ},
    {"AtomicOpsEgressBlck", PCI_EXP_DEVCTL2_ATOMIC_EGRESS_BLOCK},
};
constexpr fields exp_lnkcap2 = {
    {"2.5GT/s", PCI_EXP_LNKCAP2_SLS_2_5GB},
    {"5GT/s", PCI_EXP_LNKCAP2_SLS_5_0GB},
    {"8GT/s", PCI_EXP_LNKCAP2_SLS_8_0GB},
    {"16GT/s", PCI_EXP_LNKCAP2_SLS_16_0GB},
    {"32GT/s", PCI_EXP_LNKCAP2_SLS_32_0GB},
    {"64GT/s", PCI_EXP_LNKCAP2_SLS_64_0GB},
    {"Crosslink", PCI_EXP_LNKCAP2_CROSSLINK},
    {"Retimer", 0x800000},
    {"2Retimers", 0x1000000},
    {"DRS", 0x80000000},
};
constexpr char de_emphasis[] = "-6dB|-3.5dB";
constexpr fields exp_lnkctl2 = {
    {"Target Link Speed", PCI_EXP_LNKCTL2_TLS,
     "2.5GT/s|2.5GT/s|5GT/s|8GT/s|16GT/s|32GT/s|64GT/s|"
     "Unknown|Unknown|Unknown|Unknown|Unknown|Unknown|Unknown|Unknown|Unknown"},
    {"EnterCompliance", PCI_EXP_LNKCTL2_ENTER_COMP},
    {"SpeedDis", PCI_EXP_LNKCTL2_HASD},
    {"Selectable De-emphasis", 0x40, de_emphasis},
    {"Transmit Margin", PCI_EXP_LNKCTL2_TX_MARGIN,
     "Normal Operating Range|800-1200mV(full-swing)/400-700mV(half-swing)|"
     "200-400mV(full-swing)/100-200mV(half-swing)|"
     "200-400mV(full-swing)/100-200mV(half-swing)|"
     "200-400mV(full-swing)/100-200mV(half-swing)|"
     "200-400mV(full-swing)/100-200mV(half-swing)|Unknown|Unknown"},
    {"EnterModifiedCompliance", 0x400},
    {"ComplianceSOS", 0x800},
    {"Compliance Preset/De-emphasis", 0xf000,
     "-6dB de-emphasis, 0dB preshoot|-3.5dB de-emphasis, 0dB preshoot|"
     "-4.4dB de-emphasis, 0dB preshoot|-2.5dB de-emphasis, 0dB preshoot|"
     "0dB de-emphasis, 0dB preshoot|0dB de-emphasis, 1.9dB preshoot|"
     "0dB de-emphasis, 2.5dB preshoot|-6.0dB de-emphasis, 3.5dB preshoot|"
     "-3.5dB de-emphasis, 3.5dB preshoot|0dB de-emphasis, 3.5dB preshoot|"
     "Unknown|Unknown|Unknown|Unknown|Unknown|Unknown"},
};
constexpr fields exp_lnksta2 = {
    {"Current De-emphasis Level", 0x1, de_emphasis},
    {"EqualizationComplete", 0x2},
    {"EqualizationPhase1", 0x4},
    {"EqualizationPhase2", 0x8},
    {"EqualizationPhase3", 0x10},
    {"LinkEqualizationRequest", 0x20},
    {"Retimer", 0x40},
    {"2Retimers", 0x80},
    {"CrosslinkRes", 0x300, "unsupported|Upstream Port|Downstream Port|incomplete"},
    {"DRS", 0x8000},
    {"DownstreamComp", 0x7000,
     "Link Down - Presence Not Determined|Link Down - Not Present|Link Down - Present|Reserved|"
     "Link Up - Present|Link Up - Present and DRS Received|Reserved|Reserved"},
};
constexpr pci_register exp[] = {
    {"EXP_FLAGS", PCI_EXP_FLAGS, 16, exp_flags},
    {"EXP_DEVCAP", PCI_EXP_DEVCAP, 32, exp_devcap},
    {"EXP_DEVCTL", PCI_EXP_DEVCTL, 16, exp_devctl},
    {"EXP_DEVSTA", PCI_EXP_DEVSTA, 16, exp_devsta},
    {"EXP_LNKCAP", PCI_EXP_LNKCAP, 32, exp_lnkcap, exp_link},
    {"EXP_LNKCTL", PCI_EXP_LNKCTL, 16, exp_lnkctl, exp_link},
    {"EXP_LNKSTA", PCI_EXP_LNKSTA, 16, exp_lnksta, exp_link},
    {"EXP_SLTCAP", PCI_EXP_SLTCAP, 32, exp_sltcap, exp_slot},
    {"EXP_SLTCTL", PCI_EXP_SLTCTL, 16, exp_sltctl, exp_slot},
    {"EXP_SLTSTA", PCI_EXP_SLTSTA, 16, exp_sltsta, exp_slot},
    {"EXP_RTCTL", PCI_EXP_RTCTL, 16, exp_rtctl, root},
    {"EXP_RTCAP", PCI_EXP_RTCAP, 16, exp_rtcap, root},
    {"EXP_RTSTA", PCI_EXP_RTSTA, 32, exp_rtsta, root},
    {"EXP_DEVCAP2", PCI_EXP_DEVCAP2, 32, exp_devcap2, exp_version_2},
    {"EXP_DEVCTL2", PCI_EXP_DEVCTL2, 16, exp_devctl2, exp_version_2},
    {"EXP_DEVSTA2", PCI_EXP_DEVSTA2, 16, {}, exp_version_2},
    {"EXP_LNKCAP2", PCI_EXP_LNKCAP2, 32, exp_lnkcap2, exp_version_2},
    {"EXP_LNKCTL2", PCI_EXP_LNKCTL2, 16, exp_lnkctl2, exp_version_2},
    {"EXP_LNKSTA2", PCI_EXP_LNKSTA2, 16, exp_lnksta2, exp_version_2},
    {"EXP_SLTCAP2", PCI_EXP_SLTCAP2, 32, {}, exp_slot_2},
    {"EXP_SLTCTL2", PCI_EXP_SLTCTL2, 16, {}, exp_slot_2},
    {"EXP_SLTSTA2", PCI_EXP_SLTSTA2, 16, {}, exp_slot_2},
};

constexpr fields err_uncor = {
    {"DLP", PCI_ERR_UNC_DLP},           {"SDES", PCI_ERR_UNC_SURPDN},
    {"TLP", PCI_ERR_UNC_POISON_TLP},    {"FCP", PCI_ERR_UNC_FCP},
    {"CmpltTO", PCI_ERR_UNC_COMP_TIME}, {"CmpltAbrt", PCI_ERR_UNC_COMP_ABORT},
    {"UnxCmplt", PCI_ERR_UNC_UNX_COMP}, {"RxOF", PCI_ERR_UNC_RX_OVER},
    {"MalfTLP", PCI_ERR_UNC_MALF_TLP},  {"ECRC", PCI_ERR_UNC_ECRC},
    {"UnsupReq", PCI_ERR_UNC_UNSUP},    {"ACSViol", PCI_ERR_UNC_ACSV},
};
constexpr fields err_cor = {
    {"RxErr", PCI_ERR_COR_RCVR},        {"BadTLP", PCI_ERR_COR_BAD_TLP},
    {"BadDLLP", PCI_ERR_COR_BAD_DLLP},  {"Rollover", PCI_ERR_COR_REP_ROLL},
    {"Timeout", PCI_ERR_COR_REP_TIMER}, {"AdvNonFatalErr", PCI_ERR_COR_ADV_NFAT},
};
constexpr fields err_cap = {
    {"First Error Pointer", 0x1f, in_place},
    {"ECRCGenCap", PCI_ERR_CAP_ECRC_GENC},
    {"ECRCGenEn", PCI_ERR_CAP_ECRC_GENE},
    {"ECRCChkCap", PCI_ERR_CAP_ECRC_CHKC},
    {"ECRCChkEn", PCI_ERR_CAP_ECRC_CHKE},
    {"MultHdrRecCap", 0x200},
    {"MultHdrRecEn", 0x400},
    {"TLPPfxPres", 0x800},
    {"HdrLogCap", 0x1000},
};
constexpr fields err_root_command = {
    {"CERptEn", PCI_ERR_ROOT_CMD_COR_EN},
    {"NFERptEn", PCI_ERR_ROOT_CMD_NONFATAL_EN},
    {"FERptEn", PCI_ERR_ROOT_CMD_FATAL_EN},
};
constexpr fields err_root_status = {
    {"CERcvd", PCI_ERR_ROOT_COR_RCV},         {"MultCERcvd", PCI_ERR_ROOT_MULTI_COR_RCV},
    {"UERcvd", PCI_ERR_ROOT_UNCOR_RCV},       {"MultUERcvd", PCI_ERR_ROOT_MULTI_UNCOR_RCV},
    {"FirstFatal", PCI_ERR_ROOT_FIRST_FATAL}, {"NonFatalMsg", PCI_ERR_ROOT_NONFATAL_RCV},
    {"FatalMsg", PCI_ERR_ROOT_FATAL_RCV},     {"IntMsg", PCI_ERR_ROOT_AER_IRQ, number},
};
constexpr pci_register aer[] = {
    {"ERR_UNCOR_STATUS", PCI_ERR_UNCOR_STATUS, 32, err_uncor},
    {"ERR_UNCOR_MASK", PCI_ERR_UNCOR_MASK, 32, err_uncor},
    {"ERR_UNCOR_SEVER", PCI_ERR_UNCOR_SEVER, 32, err_uncor},
    {"ERR_COR_STATUS", PCI_ERR_COR_STATUS, 32, err_cor},
    {"ERR_COR_MASK", PCI_ERR_COR_MASK, 32, err_cor},
    {"ERR_CAP", PCI_ERR_CAP, 32, err_cap},
    {"ERR_HEADER_LOG", PCI_ERR_HEADER_LOG, 32},
    {"ERR_ROOT_COMMAND", PCI_ERR_ROOT_COMMAND, 32, err_root_command, root},
    {"ERR_ROOT_STATUS", PCI_ERR_ROOT_STATUS, 32, err_root_status, root},
    {"ERR_ROOT_ERR_SRC", PCI_ERR_ROOT_ERR_SRC, 32, {}, root},
};

constexpr pci_register ssvid[] = {
    {"SSVID_VENDOR_ID", PCI_SSVID_VENDOR_ID, 16},
    {"SSVID_DEVICE_ID", PCI_SSVID_DEVICE_ID, 16},
};
constexpr pci_register dsn[] = {{"DSN_LOW", 4, 32}, {"DSN_HIGH", 8, 32}};

constexpr pci_capability_kind kinds[] = {
    {false, 0x01, "CAP_PM", "Power Management", pm},
    {false, 0x02, "CAP_AGP", "AGP"},
    {false, 0x03, "CAP_VPD", "Vital Product Data"},
    {false, 0x04, "CAP_SLOTID", "Slot Identification"},
    {false, 0x05, "CAP_MSI", "MSI", msi},
    {false, 0x06, "CAP_CHSWP", "CompactPCI Hot Swap"},
    {false, 0x07, "CAP_PCIX", "PCI-X"},
    {false, 0x08, "CAP_HT", "HyperTransport"},
    {false, 0x09, "CAP_VNDR", "Vendor Specific"},
    {false, 0x0a, "CAP_DBG", "Debug Port"},
    {false, 0x0b, "CAP_CCRC", "CompactPCI Resource Control"},
    {false, 0x0c, "CAP_HOTPLUG", "Hot Plug"},
    {false, 0x0d, "CAP_SSVID", "Bridge Subsystem Vendor ID", ssvid},
    {false, 0x0e, "CAP_AGP3", "AGP 8x"},
    {false, 0x0f, "CAP_SECURE", "Secure Device"},
    {false, 0x10, "CAP_EXP", "PCI Express", exp},
    {false, 0x11, "CAP_MSIX", "MSI-X", msix},
    {false, 0x12, "CAP_SATA", "SATA Configuration"},
    {false, 0x13, "CAP_AF", "Advanced Features"},
    {false, 0x14, "CAP_EA", "Enhanced Allocation"},
    {false, 0x15, "CAP_FPB", "Flattening Portal Bridge"},
    {true, 0x0001, "ECAP_AER", "Advanced Error Reporting", aer},
    {true, 0x0002, "ECAP_VC", "Virtual Channel"},
    {true, 0x0003, "ECAP_DSN", "Device Serial Number", dsn},
    {true, 0x0004, "ECAP_PB", "Power Budgeting"},
    {true, 0x0005, "ECAP_RCLINK", "Root Complex Link Declaration"},
    {true, 0x0006, "ECAP_RCILINK", "Root Complex Internal Link Control"},
    {true, 0x0007, "ECAP_RCEC", "Root Complex Event Collector"},
    {true, 0x0008, "ECAP_MFVC", "Multi-Function Virtual Channel"},
    {true, 0x0009, "ECAP_VC2", "Virtual Channel (MFVC)"},
    {true, 0x000a, "ECAP_RBCB", "Root Complex Register Block"},
    {true, 0x000b, "ECAP_VNDR", "Vendor Specific"},
    {true, 0x000d, "ECAP_ACS", "Access Control Services"},
    {true, 0x000e, "ECAP_ARI", "Alternative Routing-ID"},
    {true, 0x000f, "ECAP_ATS", "Address Translation Services"},
    {true, 0x0010, "ECAP_SRIOV", "Single Root I/O Virtualization"},
    {true, 0x0012, "ECAP_MCAST", "Multicast"},
    {true, 0x0013, "ECAP_PRI", "Page Request Interface"},
    {true, 0x0015, "ECAP_REBAR", "Resizable BAR"},
    {true, 0x0016, "ECAP_DPA", "Dynamic Power Allocation"},
    {true, 0x0017, "ECAP_TPH", "TPH Requester"},
    {true, 0x0018, "ECAP_LTR", "Latency Tolerance Reporting"},
    {true, 0x0019, "ECAP_SECPCI", "Secondary PCI Express"},
    {true, 0x001b, "ECAP_PASID", "Process Address Space ID"},
    {true, 0x001d, "ECAP_DPC", "Downstream Port Containment"},
    {true, 0x001e, "ECAP_L1PM", "L1 PM Substates"},
    {true, 0x001f, "ECAP_PTM", "Precision Time Measurement"},
    {true, 0x0023, "ECAP_DVSEC", "Designated Vendor Specific"},
    {true, 0x0025, "ECAP_DLNK", "Data Link Feature"},
    {true, 0x0026, "ECAP_16GT", "Physical Layer 16.0 GT/s"},
    {true, 0x0027, "ECAP_LMR", "Lane Margining at the Receiver"},
    {true, 0x002a, "ECAP_32GT", "Physical Layer 32.0 GT/s"},
};

} // namespace

const std::span<const pci_register> pci_header_registers = header;
const std::span<const pci_register> pci_device_registers = header_device;
const std::span<const pci_register> pci_bridge_registers = bridge;
const std::span<const pci_capability_kind> pci_capability_kinds = kinds;

} // namespace devaccess
