// SPDX-License-Identifier: GPL-2.0
/* An interface, which sends nothing, for each Ethernet controller on PCI that no other driver holds. */
#include <linux/etherdevice.h>
#include <linux/module.h>
#include <linux/pci.h>

static netdev_tx_t kv_transmit(struct sk_buff *packet, struct net_device *netdev)
{
	dev_kfree_skb(packet);
	return NETDEV_TX_OK;
}

static const struct net_device_ops kv_netdev_ops = {
	.ndo_start_xmit = kv_transmit,
};

static int kv_probe(struct pci_dev *pdev, const struct pci_device_id *id)
{
	struct net_device *netdev = alloc_etherdev(0);
	int ret;

	if (!netdev)
		return -ENOMEM;
	eth_hw_addr_random(netdev);
	netdev->netdev_ops = &kv_netdev_ops;
	SET_NETDEV_DEV(netdev, &pdev->dev);
	ret = register_netdev(netdev);
	if (ret) {
		free_netdev(netdev);
		return ret;
	}
	pci_set_drvdata(pdev, netdev);
	return 0;
}

static void kv_remove(struct pci_dev *pdev)
{
	struct net_device *netdev = pci_get_drvdata(pdev);

	unregister_netdev(netdev);
	free_netdev(netdev);
}

static const struct pci_device_id kv_ids[] = {{PCI_DEVICE_CLASS(PCI_CLASS_NETWORK_ETHERNET << 8, 0xffff00)},
					      {}};
MODULE_DEVICE_TABLE(pci, kv_ids);

static struct pci_driver kv_driver = {
	.name = "kv_pci_ethernet",
	.id_table = kv_ids,
	.probe = kv_probe,
	.remove = kv_remove,
};
module_pci_driver(kv_driver);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Network interfaces of Ethernet controllers, for tests");
